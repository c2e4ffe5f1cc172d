/// Programs of others that Postfix asks while it takes mail, and that run on although the rehearsal has a
/// network and files of its own: milters, policy services, tables behind a socket, another checker of logins.
///
/// Programs that are given whole messages (content filters, other mailboxes) are none of them: they would
/// send the rehearsal's messages on.
#pragma once

#include <string>
#include <vector>

#include "preview/network.h"

/// Those in the new main.cf and master.cf that listen on TCP, without our own daemons. To be asked on the
/// machine's network.
std::vector<Service> TcpServices(const std::vector<Place>& taken);

/// Makes their UNIX sockets reachable in the sandbox.
void KeepSockets();

/// True when somebody else's program listens on the machine: `place` is ADDRESS:PORT, or a path, which may be
/// relative to the queue.
bool RunsOutside(const std::string& place, const std::vector<Place>& taken);
