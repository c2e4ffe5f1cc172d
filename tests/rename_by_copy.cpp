// Takes the atomic rename away from a program that is run with this library preloaded. The damage has to be
// seen.
#include <unistd.h>

#include <fstream>

// NOLINTNEXTLINE(readability-inconsistent-*): the C library's own name
extern "C" int rename(const char* from, const char* to) {
  std::ofstream(to) << std::ifstream(from).rdbuf();
  return unlink(from);
}
