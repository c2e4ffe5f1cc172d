/// The table of settings: type, default and range of every key in the three groups that are read by key. It
/// is constant, so that a run spends no time on making it.
#pragma once

#include <boost/any.hpp>
#include <climits>
#include <initializer_list>
#include <string>
#include <variant>

#include "platform/brindlecot.h"

struct SettingKey {
  const char* key;
  std::variant<bool, int, const char*> defaultValue;  ///< has the setting's type
  int lowest = INT_MIN;                               ///< lowest and highest: the range of an int
  int highest = INT_MAX;
};

/// The default of `setting`, as a settings object holds it.
inline boost::any DefaultValue(const SettingKey& setting) {
  if (const bool* flag = std::get_if<bool>(&setting.defaultValue)) {
    return Value<bool>{*flag};
  }
  if (const int* number = std::get_if<int>(&setting.defaultValue)) {
    return Value<int>{*number};
  }
  return Value<std::string>{std::get<const char*>(setting.defaultValue)};
}

inline constexpr std::initializer_list<SettingKey> kSmtpKeys = {
    {"account_type", "local"},
    {"always_bcc", ""},
    {"dkim_selector", "default"},
    {"enable_dkim", false},
    {"enable_dmarc", false},
    {"enable_spf_check", false},
    {"message_limit", 10, 0, 2047},  // MiB
    {"reject_non_fqdn_helo_hostname", false},
    {"reject_non_fqdn_sender", true},
    {"reject_sasl_sender_rate_exceed", false},
    {"reject_spf_soft_fail", false},
    {"reject_unauth_pipelining", true},
    {"reject_unknown_client_hostname", false},
    {"reject_unknown_helo_hostname", false},
    {"reject_unknown_sender_domain", false},
    {"restrict_sender", false},
    {"smtp_auth_enabled", true},
    {"smtp_hostname", ""},
    {"smtp_ignore_lan_auth", false},
    {"smtp_port", 25, 1, 65535},
    {"smtp_relay_account", ""},
    {"smtp_relay_auth_enabled", false},
    {"smtp_relay_enabled", false},
    {"smtp_relay_password", ""},
    {"smtp_relay_secure_conn", false},
    {"smtp_relay_server", ""},
    {"smtp_relay_server_port", 25, 1, 65535},
    {"smtp_ssl_enabled", false},
    {"smtp_tls_enabled", false},
    {"smtp_tls_port", 587, 1, 65535},
    {"smtps_port", 465, 1, 65535},
    {"smtpd_sasl_sender_rate_limit", 100, 0, INT_MAX},
    {"spam_dnsbl_enable", false},
    {"win_domain_short_name", ""},
};

inline constexpr std::initializer_list<SettingKey> kScannerKeys = {
    {"allow_form_tags", "yes"},           {"allow_iframe_tags", "no"},
    {"allow_object_codebase_tags", "no"}, {"allow_script_tags", "no"},
    {"allow_webbugs", "disarm"},          {"anti_virus_enable", false},
    {"convert_html_to_text", false},      {"enable_dangerous_content_scan", false},
    {"find_phishing_fraud", true},        {"reject_external_message_bodies", true},
    {"reject_partial_message", true},     {"spam_auto_learn", false},
    {"spam_auto_whitelist", false},       {"spam_enable", false},
    {"spam_enable_rewrite", false},       {"spam_learn_threshold_non_spam", 0},
    {"spam_learn_threshold_spam", 12},    {"spam_report_machanism", 0},
    {"spam_required_score", 5},           {"spam_rewrite_subject", "{Spam?}"},
};

inline constexpr std::initializer_list<SettingKey> kImapPop3Keys = {
    {"imap_enabled", true},
    {"imaps_enabled", false},
    {"pop3_enabled", false},
    {"pop3s_enabled", false},
};
