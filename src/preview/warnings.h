/// Settings that are valid, and that mail will stumble over all the same.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "platform/brindlecot.h"

/// One line for each, in the form "PATH: KEY: text", in the order of the files and keys; none for
/// settings that are fine. Reads the stored settings and the customisation files, and changes nothing.
/// Without any line when a file cannot be loaded: its loader logs what is wrong.
std::vector<std::string> SettingsWarnings();

/// The same for settings at hand. `aliases` and `attachments` are the JSON objects of aliases.json and
/// attachment_filter.json.
std::vector<std::string> SettingsWarnings(Postfix& smtp, MailScanner& scanner, ImapPop3& imapPop3,
                                          const Json::Value& aliases, const Json::Value& attachments);
