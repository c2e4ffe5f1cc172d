// Preloaded into a program, it makes rename not atomic. faults.py has to find the damage.
#include <unistd.h>

#include <fstream>

// NOLINTNEXTLINE(readability-inconsistent-*): the C library's own name
extern "C" int rename(const char* from, const char* to) {
  std::ofstream(to) << std::ifstream(from).rdbuf();
  return unlink(from);
}
