// nubo_set_config: regenerates the group of configuration files that its one argument names.

#include <fcntl.h>
#include <unistd.h>

#include "core/commands.h"

namespace {

// Opens the standard descriptors that the caller has closed. Otherwise a file that is opened later gets the
// number, and messages are printed into that file.
void OpenStandardDescriptors() {
  int file = open("/dev/null", O_RDWR);
  while (file >= 0 && file < STDERR_FILENO) file = dup(file);
  if (file > STDERR_FILENO) close(file);
}

}  // namespace

int main(int argc, char* argv[]) {
  OpenStandardDescriptors();
  return RunCommand(argc, argv);
}
