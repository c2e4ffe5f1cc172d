/// The daemons that run on the package's files: which of them run, and how they load changed files.
///
/// A process is a daemon's when its executable, its owner, and the files that it was started with are the
/// daemon's. So the system's own daemons, those of a rehearsal, and a user's process of the same name are not
/// taken for one.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "mail/daemons.h"
#include "mail/listeners.h"
#include "mail/paths.h"

/// The daemons that run now; never MailScanner.
std::set<DaemonId> RunningDaemons();

/// True when the daemon runs: Postfix has a master, and a milter has its port.
bool IsServing(const Daemon& daemon);

/// The milters that a main.cf, in this directory, wants and does not want; none when Postfix cannot read it.
std::set<DaemonId> WantedMilters(const std::string& etc);

/// Asks the daemon's own checkers about its files. Throws Fault unless they accept them.
void CheckFiles(const Daemon& daemon);

/// Has a daemon load its files, and returns how: Postfix is reloaded, or restarted when it does not run or
/// was started with other values of what it reads at its start only. `earlier` are the directories with files
/// that it may have been started with. The other daemons are restarted. A daemon is stopped only when
/// CheckFiles accepts its files. Throws Fault.
std::string ReloadDaemon(DaemonId id, const std::vector<std::string>& earlier);

/// Stops a daemon and starts it again, when CheckFiles accepts its files. Throws Fault.
void RestartDaemon(const Daemon& daemon);

/// True when a process of the daemon that runs on these files has the listener. (Debian's own Postfix can
/// listen on the same place at the same time.)
bool IsHeldBy(const TcpListener& listener, const Daemon& daemon);

/// Stops a daemon, and what a dead master of Postfix has left behind.
void StopDaemon(const Daemon& daemon);

/// The programs that listen on a place of our Postfix too, and take the connections by turns, and how they
/// are stopped; empty when there are none.
std::string SharedPorts();

/// The command that starts a daemon, for people.
std::string StartCommand(const Daemon& daemon);

/// The steps to take where no daemon runs yet, one line each: who holds their ports, and how the daemons are
/// started.
std::set<std::string> FirstSteps();
