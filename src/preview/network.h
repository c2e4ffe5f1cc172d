/// The network in which daemons are rehearsed.
#pragma once

#include <string>
#include <vector>

/// Where a program listens for TCP connections; both are numeric.
struct Place {
  std::string address;
  std::string port;
};

/// The places where programs other than our daemons listen. To be asked outside the sandbox, from where such
/// programs cannot be seen.
std::vector<Place> TakenPlaces();

/// Leaves the machine's network for good. In the new one there are the loopback interface, with the machine's
/// own addresses beside its usual ones; sockets that keep the taken places; and a name server
/// that answers at once that it does not know. To be called in the sandbox.
void LeaveNetwork(const std::vector<Place>& taken);
