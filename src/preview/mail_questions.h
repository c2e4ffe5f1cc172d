/// What the checks of Postfix and of Dovecot share.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/paths.h"
#include "preview/mail_check.h"
#include "preview/mail_dialogue.h"

using Observations = std::vector<MailObservation>;
using Values = std::map<std::string, std::string>;

/// The `name = value` lines that postconf(1) and doveconf(1) print.
Values ValuesOf(const std::string& text);

bool Has(const std::vector<std::string>& words, const std::string& word);

/// Holds the dialogue three times, or until one fails, and adds what was seen. True when all went well.
/// (After a failed reload an old process may share the port and take some of the connections. In a rehearsal
/// there is none, and one dialogue is enough.)
bool Ask(Observations& seen, const MailCheck& check, const std::string& what, const Dialogue& dialogue);

/// The addresses of this machine that other machines can reach.
std::vector<std::string> OwnAddresses();

/// The first IPv4 address of this machine that other machines can reach; empty when it has none.
std::string OwnAddress();

void CheckPostfix(Observations& seen, const MailCheck& check);
void CheckDovecot(Observations& seen, const MailCheck& check);
