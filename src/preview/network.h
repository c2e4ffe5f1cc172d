/// The network in which daemons are rehearsed.
#pragma once

#include <string>
#include <vector>

/// Where a program listens for TCP connections; both are numeric.
struct Place {
  std::string address;
  std::string port;
};

/// A program that is asked in the rehearsal, and listens on the machine's network.
struct Service {
  std::string host;  ///< as the configuration names it
  Place place;
  bool local;  ///< on this machine
};

/// The places where programs other than our daemons listen. To be asked outside the sandbox, from where such
/// programs cannot be seen.
std::vector<Place> TakenPlaces();

/// Leaves the machine's network for good. In the new one there are the loopback interface, with the machine's
/// own addresses beside its usual ones; sockets that keep the taken places; ways to the services; and a name
/// server that answers at once that it does not know. To be called in the sandbox.
void LeaveNetwork(const std::vector<Place>& taken, const std::vector<Service>& services);
