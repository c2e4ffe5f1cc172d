/// The daemons that run on the package's files: which of them run, and what a changed file asks of them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

/// A daemon that runs on the package's files: "OpenDKIM", "OpenDMARC", "Dovecot" or "Postfix".
struct RunningDaemon {
  std::string name;
  pid_t pid;
  bool unit;  ///< systemd has started it, and has to start it again
};

/// Those that run now. They are found by the files that they were started on, so the system's own are not
/// among them, nor those of a rehearsal.
std::vector<RunningDaemon> RunningDaemons();

bool Runs(const std::vector<RunningDaemon>& daemons, const std::string& name);

/// Starts a daemon, and waits until a milter's port answers. Throws Fault.
void StartDaemon(const std::string& name, bool unit);

/// Ends a daemon, by its process id, whatever its files say; of Postfix also what a dead master has left
/// behind, which would share the ports with the next one.
void StopDaemon(const RunningDaemon& daemon);

/// Has the daemons follow: milters, Dovecot, Postfix, MailScanner. What does not run stays off, but for a
/// milter that is newly switched on; one that is no longer wanted stops last. Returns what was done, a phrase
/// each. `changed` are the paths that differ from what the daemons have loaded, `before` is the directory
/// with the generated files that they have loaded. Throws Fault.
std::vector<std::string> Follow(const std::vector<std::string>& changed, const std::string& before);
