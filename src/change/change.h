/// A change of the mail system as a whole: files, and the daemons that run on them.
///
/// 1. Snapshot, before the first write: kPending gets copies of the inputs and outputs as they are found
///    (`in`, `out`; for a certificate `ssl`). `about` names the daemons that run, and has the checks of mail.
///    The copies, and a file that only takes room, are the room that a rollback needs.
/// 2. The files are written. `tried` gets the inputs that they were made from, and the outputs.
/// 3. Plan: each daemon that reads a file which is not as it was found; of the daemons whose files the
///    command makes, also those that read a file which is not as in the last state. `touched` gets each one
///    before it loads. A daemon that runs is stopped only when its checkers accept its files.
/// 4. Mail is checked. What failed before is not held against the change. `good` is made.
/// 5. Commit: `tried` becomes the next state by one rename. Or rollback: `good` is removed, so that nobody
///    can confirm any more; the files that the change wrote are put back as they were found; the touched
///    daemons load again.
///
/// Whatever interrupts this, the next command finds either no kPending, or what a rollback needs.
#pragma once

#include <functional>
#include <list>
#include <set>
#include <string>
#include <vector>

#include "change/basics.h"
#include "change/pending.h"

/// kApply generates files from the settings as they are, kUndo from those of an earlier state; kAsFound puts
/// back files of which there are no settings; kRenew brings a new certificate.
enum class ChangeKind { kApply, kUndo, kAsFound, kRenew };

/// This boot of the machine: random(4).
std::string ThisBoot();

/// CLOCK_BOOTTIME in seconds. It goes on while the machine sleeps, and nobody can set it.
long Now();

/// From here on the program goes on when its terminal is closed; SIGINT and SIGTERM have a change rolled
/// back.
void IgnoreHangup();

/// From here on SIGINT and SIGTERM do nothing, for a rollback.
void IgnoreInterrupts();

/// Checks the mail of these daemons, with a message of this subject and text.
CheckResults AskMail(const std::set<DaemonId>& daemons, const std::string& subject, const std::string& text);

/// Checks the mail of the daemons that ran before the change. Returns what fails, as it did before. Throws
/// Fault with what fails, and did not before.
std::string CheckAgain(const PendingChange& change, const std::string& subject, const std::string& text);

/// Starts a change from the last confirmed state. The first time, saves the present files as state 1. Records
/// which daemons run, and checks mail. Throws Fault when a change is pending, or Postfix shares a port.
PendingChange Begin(const std::string& command, const std::string& message, const std::string& user,
                    const std::set<DaemonId>& affected);

/// Makes a change, as described above. With `minutes` greater than 0 it waits to be confirmed; a timer, which
/// outlives the session, takes it back then. `write` writes the files, after PendingChange::SavePlan, and
/// returns what the change does, for people. Returns the exit status. Throws Fault before anything was
/// touched.
int RunChange(PendingChange change, ChangeKind kind, double minutes,
              const std::function<std::string()>& write);

/// Makes the daemons load the files that the change wrote. What did not run stays off, except for a milter
/// that was switched on. A milter that was switched off stops last. Returns a phrase for each thing done.
/// Throws Fault.
std::list<std::string> ReloadDaemons(const PendingChange& change, ChangeKind kind);

/// Replaces the inputs by those of the change's source. Those that are in no state are kept under a name that
/// is printed. Throws Fault.
void ReplaceInputs(const PendingChange& change);

/// Makes the pending change a state, if it has one, and ends it.
void Commit(const PendingChange& pending);

/// Takes the pending change back. It may be run again after it was killed. Returns 3, or 4.
int RollBack(const PendingChange& pending, const std::string& reason);

/// Puts back the files that the pending change wrote, as they were found. What others have written there
/// since is kept under a name that is printed. Returns the paths. Throws Fault.
Paths RestoreFound(const PendingChange& pending);

/// Puts a copy of this directory in the place of the one with the certificate, by one rename, so that nobody
/// finds a certificate without its key.
void InstallSsl(const std::string& directory);
