/// Programs of others that Postfix asks while it takes mail, and that run on although the rehearsal has a
/// network and files of its own: milters, policy services, tables behind a socket, another checker of logins.
///
/// Programs that are given whole messages (content filters, other mailboxes) are none of them: they would
/// send the rehearsal's messages on.
#pragma once

#include <string>
#include <vector>

#include "mail/postfix_config.h"
#include "preview/network.h"

/// Those in main.cf and master.cf that listen on TCP, without our own daemons. To be asked on the
/// machine's network.
std::vector<Service> TcpServices(const PostfixConfig& postfix, const std::vector<Endpoint>& occupied);

/// Makes their UNIX sockets reachable in the sandbox.
void KeepSockets(const PostfixConfig& postfix);

/// True when somebody else's program listens on the machine. The peer is an address and a port, or a path.
bool RunsOutside(const PostfixConfig& postfix, const Peer& peer, const std::vector<Endpoint>& occupied);
