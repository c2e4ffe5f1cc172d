// nubo_set_config: regenerates the group of configuration files that its one argument names.

#include <fcntl.h>
#include <unistd.h>

#include "core/commands.h"

namespace {

// A caller may have closed a standard descriptor. The next file that is opened would get its number, and
// messages would be printed into that file.
void KeepStandardDescriptors() {
  int file = open("/dev/null", O_RDWR);
  while (file >= 0 && file < STDERR_FILENO) file = dup(file);
  if (file > STDERR_FILENO) close(file);
}

}  // namespace

int main(int argc, char* argv[]) {
  KeepStandardDescriptors();
  return RunCommand(argc, argv);
}
