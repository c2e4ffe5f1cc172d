/// What daemons write to beside the generated files, covered by copies without content.
#pragma once

#include <string>
#include <vector>

#include "mail/postfix_config.h"

/// Covers the data of mail: logs, Postfix's queue without what is in it, folders of mail, and the homes of
/// users. What stands at the usual places for mail keeps its kind, owner and mode, so that mail is refused
/// here where it would be on the machine.
void CoverData(const PostfixConfig& postfix);

/// Two users of this machine who get mail, as far as there are any: the first one, and the first one who
/// could not write at the place for mail in the home.
std::vector<std::string> MailUsers(const PostfixConfig& postfix);
