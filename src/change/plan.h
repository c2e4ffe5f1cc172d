/// Which daemons load the files of a change.
#pragma once

#include <list>
#include <string>

#include "change/change.h"

/// Makes the daemons load the files that the change wrote. What did not run stays off, except for a milter
/// that was switched on. A milter that was switched off stops last. Returns a phrase for each thing done.
/// Throws Fault.
std::list<std::string> ReloadDaemons(const PendingChange& change, ChangeKind kind);
