/// Warnings about settings that are valid but will cause trouble with mail.
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "platform/brindlecot.h"

/// One line for each, "PATH: KEY: text", in the order of the files and keys. Reads the stored settings and
/// the customisation files. `listenersChange` is true when Dovecot's 10-master.conf is about to change. No
/// line when a file cannot be loaded: loading it logs what is wrong.
std::vector<std::string> SettingsWarnings(bool listenersChange);

/// The same for the given settings. `aliases` and `attachments` are the JSON objects in aliases.json and
/// attachment_filter.json.
std::vector<std::string> SettingsWarnings(Postfix& smtp, MailScanner& scanner, ImapPop3& imapPop3,
                                          const Json::Value& aliases, const Json::Value& attachments,
                                          bool listenersChange);
