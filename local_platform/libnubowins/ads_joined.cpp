#include "libnubocore/run_program.h"
#include "platform/nubowins.h"

int NUBOWinsADSJoined() { return RunProgram({"/usr/bin/net", "ads", "testjoin"}).empty() ? 1 : 0; }
