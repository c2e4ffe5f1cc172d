// Takes the atomic rename away from a program that is run with this library preloaded. The fault suite has
// to see the damage.
#include <unistd.h>

#include <fstream>

extern "C" int rename(const char* from, const char* to) {
  std::ofstream(to) << std::ifstream(from).rdbuf();
  return unlink(from);
}
