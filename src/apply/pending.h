/// The change that is under way, or waits to be confirmed: the directory `pending` below kStates. It is on
/// disk before the first file is written and until the change is confirmed or taken back. In it:
///
///     about   the text that this header reads and writes
///     in out  the way back (state.h)
///     next    the state that the change makes, once mail has been found good with it
///     refused the settings of a change that is being taken back
#pragma once

#include <set>
#include <string>
#include <vector>

#include "apply/daemons.h"

constexpr const char* kPending = "/var/packages/Brindlecot/target/var/lib/apply/pending";

struct Pending {
  int base = 0;                        ///< the state that it started from
  std::string what;                    ///< one line for the administrator
  std::string boot;                    ///< the boot of the machine that it belongs to
  long deadline = 0;                   ///< to be confirmed until then, in CLOCK_BOOTTIME seconds; 0: at once
  std::vector<RunningDaemon> running;  ///< before it
  std::set<std::string> unwell;        ///< what was not good in the check of mail before it
};

/// True when there is a pending change.
bool IsPending();

/// Reads it. Throws Fault when there is none, or it is damaged.
Pending ReadPending();

/// Writes `about` into a tree, synced.
void WritePending(const Pending& pending, const std::string& tree);

/// This boot of the machine: /proc/sys/kernel/random/boot_id, random(4).
std::string ThisBoot();

/// CLOCK_BOOTTIME in seconds. It goes on while the machine sleeps, and nobody can set it.
long Now();
