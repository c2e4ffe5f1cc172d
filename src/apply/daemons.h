/// The daemons that run with the package's files: which of them run, and what they must do after a change.
#pragma once

#include <string>
#include <vector>

/// A daemon that runs on the package's files: "OpenDKIM", "OpenDMARC", "Dovecot" or "Postfix".
struct RunningDaemon {
  std::string name;
  bool unit;  ///< systemd has started it, and has to start it again
};

/// Those that run now. They are found by the files that they were started with. So the system's own daemons
/// and those of a rehearsal are not among them.
std::vector<RunningDaemon> RunningDaemons();

bool Runs(const std::vector<RunningDaemon>& daemons, const std::string& name);

/// Starts a daemon, and waits until a milter's port answers. Throws Fault.
void StartDaemon(const std::string& name, bool unit);

/// Ends a daemon by its process id. For Postfix, also ends the processes that a dead master has left behind,
/// which would share the ports with the next one.
void StopDaemon(const RunningDaemon& daemon);

/// Makes the daemons load the changed files: milters, Dovecot, Postfix, MailScanner. A daemon that does not
/// run stays off, except for a milter that has been switched on. A milter that has been switched off stops
/// last. Returns a phrase for each thing done. `changed` are the paths that differ from what the daemons have
/// loaded; `before` is the directory with the generated files that they have loaded. Throws Fault.
std::vector<std::string> Follow(const std::vector<std::string>& changed, const std::string& before);
