/// The daemons that run with the package's files: which of them run, and what they must do after a change.
#pragma once

#include <list>
#include <set>
#include <string>

#include "mail_check/configuration.h"

/// The names of those that run now: "OpenDKIM", "OpenDMARC", "Dovecot", "Postfix". They are found by the
/// files that they were started with. So the system's own daemons and those of a rehearsal are not among
/// them.
std::set<std::string> RunningDaemons();

/// Makes the daemons load the changed files: milters, Dovecot, Postfix, MailScanner. A daemon that does not
/// run stays off, except for a milter that has been switched on. A milter that has been switched off stops
/// last. Returns a phrase for each thing done. `changed` are the paths that differ from what the daemons have
/// loaded; `before` is the directory with the generated files that they have loaded. Throws Fault.
std::list<std::string> Follow(const std::set<std::string>& changed, const std::string& before);

/// Stops all daemons and starts those that are wanted; MailScanner is reloaded. Throws Fault when some do not
/// start.
void StartAnew(const std::set<std::string>& wanted);
