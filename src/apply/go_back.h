/// Checks of mail, compared with those before a change; and taking a change back.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "apply/pending.h"
#include "preview/mail_check.h"

/// Where the settings of the last change that was taken back are kept.
constexpr const char* kRefused = "/var/packages/Brindlecot/target/var/lib/apply/refused";

/// Checks the mail of those daemons, with a message of this subject and text.
std::vector<MailObservation> AskMail(const std::vector<RunningDaemon>& daemons, const std::string& subject,
                                     const std::string& text);

/// What is not good now and was good before, as "WHAT: DETAIL".
std::vector<std::string> Worse(const std::vector<MailObservation>& seen, const std::set<std::string>& unwell);

std::string Join(const std::vector<std::string>& items, const char* separator);

/// Removes the pending change.
void EndPending();

/// Takes the pending change back: keeps its settings as refused, puts every file back, restarts the daemons
/// that ran before it, and checks mail. It may be run again after it was killed. 3, or 4.
int GoBack(const Pending& pending, const std::string& reason);
