/// The network in which daemons are rehearsed.
#pragma once

#include <string>
#include <vector>

/// Where a program listens for TCP connections; both are numeric.
struct Endpoint {
  std::string address;
  std::string port;
};

/// A program that is asked in the rehearsal, and listens on the machine's network.
struct Service {
  std::string host;  ///< as the configuration names it
  Endpoint endpoint;
  bool local;  ///< on this machine
};

/// The endpoints where programs other than our daemons listen. To be asked outside the sandbox, from where
/// such programs cannot be seen.
std::vector<Endpoint> OccupiedEndpoints();

/// Leaves the machine's network for good. In the new one there are the loopback interface, with the machine's
/// own addresses beside its usual ones; sockets that keep the occupied endpoints; ways to the services; and a
/// name server that answers at once that it does not know. To be called in the sandbox.
void LeaveNetwork(const std::vector<Endpoint>& occupied, const std::vector<Service>& services);
