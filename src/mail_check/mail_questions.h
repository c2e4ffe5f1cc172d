/// What the checks of Postfix and of Dovecot share.
#pragma once

#include <string>
#include <vector>

#include "mail_check/configuration.h"
#include "mail_check/mail_check.h"
#include "mail_check/mail_dialogue.h"

using Observations = std::vector<MailObservation>;

/// Has the dialogue three times, or until one fails, and adds what was seen. True when all went well.
/// (After a failed reload an old process may share the port and take some of the connections. In a rehearsal
/// there is none, and one dialogue is enough.)
bool Ask(Observations& seen, const MailCheck& check, const std::string& what, const Dialogue& dialogue);

/// The addresses of this machine that other machines can reach.
std::vector<std::string> OwnAddresses();

/// The first IPv4 address of this machine that other machines can reach; empty when it has none.
std::string OwnAddress();

void CheckPostfix(Observations& seen, const MailCheck& check);
void CheckDovecot(Observations& seen, const MailCheck& check);
