/// The rehearsal: the real daemons run on the files, in the sandbox, and are asked what users of the mail
/// system would ask. It finds what no checker of a file can: a port that is wanted twice, a table that is not
/// there, a message that is not delivered.
///
/// There is no network. What fails for want of a name server, a directory or another host does not count.
#pragma once

#include <string>
#include <vector>

#include "checks/check_result.h"
#include "preview/network.h"

/// The question whether a daemon starts.
Question StartOf(DaemonId id);

/// Who cannot do what when a daemon does not run: since its files are at fault, or since it is not installed.
std::string Consequence(DaemonId id, bool installed = true);

/// Starts Dovecot, the milters that are on and Postfix, as far as they are installed and have files, and asks
/// them. `occupied` are the endpoints at which others listen (OccupiedEndpoints). To be called once, after
/// CoverData: the network is left for good.
CheckResults Rehearse(const PostfixConfig& postfix, const std::vector<Endpoint>& occupied);
