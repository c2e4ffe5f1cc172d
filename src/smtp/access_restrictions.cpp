#include "core/config_generator.h"
#include "core/paths.h"

namespace {

// The recipient list and the HELO list begin with the administrator's tables and the trusted clients.
std::list<std::string> CommonRestrictions() {
  return {"check_client_access hash:/var/packages/Brindlecot/target/etc/access/client_access",
          "check_sender_access hash:/var/packages/Brindlecot/target/etc/access/sender_access",
          "check_recipient_access hash:/var/packages/Brindlecot/target/etc/access/recipient_access",
          "permit_mynetworks", "permit_sasl_authenticated"};
}

}  // namespace

int ConfigGenerator::WriteSenderRestrictions() {
  std::list<std::string> restrictions;
  if (GetBool(smtp, "restrict_sender")) {
    mainCf << "smtpd_sender_login_maps = hash:/var/packages/Brindlecot/target/etc/login_map" << EndLine;
    restrictions.emplace_back("reject_authenticated_sender_login_mismatch");
  }
  if (GetBool(smtp, "reject_sasl_sender_rate_exceed")) {
    mainCf << "smtpd_sasl_sender_quota_maps = hash:/var/packages/Brindlecot/target/etc/sender_quota_map"
           << EndLine;
    mainCf << "smtpd_sasl_sender_rate_limit = " << GetInt(smtp, "smtpd_sasl_sender_rate_limit") << EndLine;
    // The value has two slashes: the path adds its own.
    mainCf << "smtpd_sasl_sender_quota_cache = memcache:/" << kQuotaMemcacheCf << EndLine;
    restrictions.emplace_back("reject_sasl_sender_rate_exceed");
    (void)GenerateQuotaMemcacheMap();
  }
  if (!restrictions.empty()) {
    mainCf << "smtpd_sender_restrictions = " << JoinList(restrictions, ", ") << EndLine;
  }
  return 0;
}

int ConfigGenerator::WriteRecipientRestrictions() {
  std::list<std::string> restrictions = CommonRestrictions();
  restrictions.emplace_back("reject_unauth_destination");
  for (const char* key : {"reject_unauth_pipelining", "reject_unknown_client_hostname",
                          "reject_non_fqdn_sender", "reject_unknown_sender_domain"}) {
    // These settings have the names of the restrictions that they switch on.
    if (GetBool(smtp, key)) restrictions.emplace_back(key);
  }
  if (GetBool(smtp, "enable_spf_check")) {
    restrictions.emplace_back("check_policy_service unix:private/policy");
  }
  if (GetBool(smtp, "spam_dnsbl_enable")) {
    for (const auto& [zone, kind] : smtp.GetDNSBLList()) {
      restrictions.push_back((kind == "RBL" ? "reject_rbl_client " : "reject_rhsbl_client ") + zone);
    }
  }
  mainCf << "smtpd_recipient_restrictions = " << JoinList(restrictions, ", ") << EndLine;
  return 0;
}

int ConfigGenerator::WriteHeloRestrictions() {
  const bool rejectNonFqdn = GetBool(smtp, "reject_non_fqdn_helo_hostname");
  const bool rejectUnknown = GetBool(smtp, "reject_unknown_helo_hostname");
  if (!rejectNonFqdn && !rejectUnknown) return 0;

  std::list<std::string> restrictions = CommonRestrictions();
  if (rejectNonFqdn) restrictions.emplace_back("reject_non_fqdn_helo_hostname");
  if (rejectUnknown) restrictions.emplace_back("reject_unknown_helo_hostname");
  mainCf << "smtpd_helo_required = yes" << EndLine;
  mainCf << "smtpd_helo_restrictions = " << JoinList(restrictions, ", ") << EndLine;
  return 0;
}
