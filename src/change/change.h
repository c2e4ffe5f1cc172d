/// A change of the mail system as a whole: files, and the daemons that run on them.
///
/// 1. Snapshot, before the first write: kPending gets copies of the inputs and outputs as they are found
///    (`in`, `out`; for a certificate `ssl`). `about` names the daemons that run, and what is not well. The
///    copies, and a file that only takes room, are the room that a rollback needs.
/// 2. The files are written. `tried` gets the inputs that they were made from, and the outputs.
/// 3. Plan: each daemon that reads a file which is not as it was found; of the daemons that the command
///    concerns, also those that read a file which is not as in the last state. `touched` gets each name
///    before the daemon loads. A daemon that runs is stopped only when its checkers accept its files.
/// 4. Mail is checked. What was not well before is not held against the change. `good` is made.
/// 5. Commit: `tried` becomes the next state by one rename. Or rollback: `good` is removed, so that nobody
///    can confirm any more; the files that the change wrote are put back as they were found; the touched
///    daemons load again.
///
/// Whatever interrupts this, the next command finds either no kPending, or what a rollback needs.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "apply/commands.h"
#include "change/basics.h"
#include "change/state.h"
#include "checks/mail_check.h"

inline const std::string kTried = kPending + "/tried";
inline const std::string kGood = kPending + "/good";
inline const std::string kPlan = kPending + "/plan";
inline const std::string kSavedSsl = kPending + "/ssl";

struct Change {
  int base = 0;                     ///< the state that it starts from
  std::string what;                 ///< one line for the administrator: the command, and why it was given
  std::string user;                 ///< who gave it
  std::string boot;                 ///< the boot of the machine that it belongs to
  long deadline = 0;                ///< to be confirmed until then, in CLOCK_BOOTTIME seconds; 0: at once
  int source = 0;                   ///< the state whose files an undo puts back; 0: none
  std::set<std::string> concerned;  ///< the daemons whose files the command makes
  std::set<std::string> running;    ///< before it
  std::set<std::string> unwell;     ///< the checks of mail that failed before it
};

/// kApply generates files from the settings as they are, kUndo from those of an earlier state; kAsFound puts
/// back files of which there are no settings; kRenew brings a new certificate.
enum class ChangeKind { kApply, kUndo, kAsFound, kRenew };

/// True when there is a pending change.
bool IsPending();

/// Reads it. Throws Fault when there is none.
Change ReadPending();

/// This boot of the machine: random(4).
std::string ThisBoot();

/// CLOCK_BOOTTIME in seconds. It goes on while the machine sleeps, and nobody can set it.
long Now();

/// From here on the program goes on when its terminal is closed; SIGINT and SIGTERM have a change rolled
/// back.
void IgnoreHangup();

/// Checks the mail of these daemons, with a message of this subject and text.
CheckResults AskMail(const std::set<std::string>& daemons, const std::string& subject,
                     const std::string& text);

/// Checks the mail of the daemons that ran before the change. Returns what fails, as it did before. Throws
/// Fault with what fails, and did not before.
std::string CheckAgain(const Change& change, const std::string& subject, const std::string& text);

/// Starts a change from the last state. The first time, saves the present files as state 1. Records which
/// daemons run and which checks of mail fail. Throws Fault when a change is pending.
Change Begin(const std::string& command, const Request& request, const std::set<std::string>& concerned);

/// Makes a change, as described above. With `minutes` greater than 0 it waits to be confirmed. `write` writes
/// the files, after SavePlan, and returns what the change does, for people. Returns the exit status. Throws
/// Fault before anything was touched.
int RunChange(Change change, ChangeKind kind, double minutes, const std::function<std::string()>& write);

/// Saves which files are about to be written: a rollback removes no other new file. Throws Fault.
void SavePlan(const Paths& paths);

/// Saves the inputs from which the files are about to be written. Throws Fault.
void SaveTriedInputs(const Change& change);

/// Replaces the inputs by those of the change's source. Those that are in no state are kept under a name that
/// is printed. Throws Fault.
void ReplaceInputs(const Change& change);

/// Makes the pending change a state, if it has one, and ends it.
void Commit(const Change& pending);

/// Takes the pending change back. It may be run again after it was killed. Returns 3, or 4.
int RollBack(const Change& pending, const std::string& reason);

/// Puts back the files that the pending change wrote, as they were found. What others have written there
/// since is kept under a name that is printed. Returns the paths. Throws Fault.
Paths RestoreFound(const Change& pending);

/// Removes the pending change.
void EndPending();

/// Puts a copy of this directory in the place of the one with the certificate, by one rename, so that nobody
/// finds a certificate without its key.
void InstallSsl(const std::string& directory);
