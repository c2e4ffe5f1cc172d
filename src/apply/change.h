/// A change of the mail system as a whole: it is made and checked, then confirmed or taken back.
///
/// It is on disk, in kPending, before the first file is written and until it is confirmed or taken back:
///
///     about   the structure below
///     in out  the way back (state.h); for a new certificate, also a copy of kSsl, as `ssl`
///     next    the state that the change makes, once mail has been found good with it
///     refused the settings of a change that is being taken back
#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "apply/basics.h"
#include "apply/commands.h"
#include "apply/daemons.h"
#include "mail_check/mail_check.h"

struct Change {
  int base = 0;                   ///< the state that it starts from
  std::string what;               ///< one line for the administrator: the command, and why it was given
  std::string user;               ///< who gave it
  std::string boot;               ///< the boot of the machine that it belongs to
  long deadline = 0;              ///< to be confirmed until then, in CLOCK_BOOTTIME seconds; 0: at once
  std::set<std::string> running;  ///< before it
  std::set<std::string> unwell;   ///< what was not good in the check of mail before it
};

/// What a change does: it generates files from the settings as they are, or from those of an earlier state,
/// puts back files of which there are no settings, or brings a new certificate.
enum class Sort { kApply, kUndo, kAsFound, kRenew };

/// True when there is a pending change.
bool IsPending();

/// Reads it. Throws Fault when there is none.
Change ReadPending();

/// CLOCK_BOOTTIME in seconds. It goes on while the machine sleeps, and nobody can set it.
long Now();

/// From here on the program goes on when its terminal is closed; SIGINT and SIGTERM have a change taken back.
void OutliveSession();

/// Checks the mail of those daemons, with a message of this subject and text.
std::vector<MailObservation> AskMail(const std::set<std::string>& daemons, const std::string& subject,
                                     const std::string& text);

/// A change from the last confirmed state, which is made from the files as they are found where there is
/// none, and from mail as it is now. Throws Fault when another one is pending.
Change Begin(const std::string& command, const Request& request);

/// Thrown by `write` below when the settings are refused and nothing has been written yet.
struct Refused : Fault {
  using Fault::Fault;
};

/// Makes a change: writes the way back, has `write` write the files, and has the daemons follow. When mail is
/// worse then, or `write` throws, puts everything back. With `minutes` greater than 0 the change waits to be
/// confirmed. `write` returns what the change does, for people. Returns the exit status. Throws Fault before
/// anything was touched.
int BringAbout(Change change, Sort sort, double minutes, const std::function<std::string()>& write);

/// Makes the pending change a state, if it has one, and ends it. 0.
int Settle(const Change& pending);

/// Takes the pending change back: keeps its settings as refused, puts every file back, restarts the daemons
/// that ran before it, and checks mail. It may be run again after it was killed. 3, or 4.
int GoBack(const Change& pending, const std::string& reason);

/// Removes the pending change.
void EndPending();

/// Puts a copy of this directory in the place of kSsl, by one rename, so that nobody finds a certificate
/// without its key.
void InstallSsl(const std::string& directory);
