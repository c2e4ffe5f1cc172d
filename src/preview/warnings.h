/// Warnings about what is valid but will cause trouble with mail. A warning is one line, "FILE: KEY: text".
#pragma once

#include <json/json.h>

#include <string>
#include <vector>

#include "mail/postfix_config.h"
#include "platform/brindlecot.h"

using Warnings = std::vector<std::string>;

/// All warnings about the stored settings, the new files and what they refer to outside this machine. To be
/// called before the network is left: it asks DNS, and connects to directories and filters, at most three
/// seconds each. `listenersChange` is true when Dovecot's 10-master.conf is about to change. `postfix` is
/// empty where Postfix cannot read its files.
Warnings AllWarnings(bool listenersChange, const PostfixConfig& postfix);

/// Warnings about the given settings and the customisation files, in the order of the files and keys.
/// `aliases` and `attachments` are the JSON objects in aliases.json and attachment_filter.json.
Warnings SettingsWarnings(Postfix& smtp, MailScanner& scanner, ImapPop3& imapPop3, const Json::Value& aliases,
                          const Json::Value& attachments, bool listenersChange);

/// Warnings about Postfix's parameters and listeners.
Warnings PostfixWarnings(const PostfixConfig& postfix);

/// Warnings about the directories, filters and name servers that these files lead to.
Warnings PeerWarnings(const PostfixConfig& postfix);
