#include <syslog.h>

#include "libnubocore/run_program.h"
#include "platform/nubowins.h"

int NUBOWinsADSJoined() {
  constexpr const char* kNet = "/usr/bin/net";
  const std::string failure = RunProgram({kNet, "ads", "testjoin"});
  if (failure.rfind("killed after ", 0) == 0) {
    syslog(LOG_ERR, "%s: %s", kNet, failure.c_str());  // any other failure is how net says no
  }
  return failure.empty() ? 1 : 0;
}
