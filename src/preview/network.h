/// The network in which daemons are rehearsed.
#pragma once

#include <string>
#include <vector>

/// The places, as ADDRESS:PORT, where programs other than mail daemons listen for TCP connections. To be
/// asked outside the sandbox, from where such programs cannot be seen.
std::vector<std::string> TakenPlaces();

/// Leaves the machine's network for good. In the new one there are the loopback interface, with the machine's
/// own addresses beside its usual ones; somebody who listens at the places that are taken; and a name server
/// that answers at once that it does not know. To be called in the sandbox.
void LeaveNetwork(const std::vector<std::string>& taken);
