#include <cstdint>

#include "core/config_generator.h"

int ConfigGenerator::GenerateMainCf() {
  (void)UpdatePamConfig();

  char temp[] = "/var/packages/Brindlecot/target/etc/main.cfXXXXXX";
  OpenFromTemplate(mainCf, temp, "/var/packages/Brindlecot/target/etc/template/main.template");

  const std::string hostname = GetString(smtp, "smtp_hostname");
  mainCf << "myhostname = " << (hostname.empty() ? "localhost" : hostname) << EndLine;
  mainCf << "smtpd_sasl_auth_enable = " << YesNo(GetBool(smtp, "smtp_auth_enabled")) << EndLine;
  if (!GetBool(smtp, "smtp_ignore_lan_auth")) {
    mainCf << "mynetworks = 127.0.0.0/8, [::1]/128" << EndLine;
  }
  const std::list<std::string> domains = smtp.GetAdditionDomain();
  mainCf << "mydestination = $myhostname, localhost.$mydomain, localhost, " << JoinList(domains, ", ")
         << EndLine;
  // The setting is in MiB. 64 bits, since the bytes of 2048 MiB do not fit into an int.
  mainCf << "message_size_limit = " << std::int64_t{GetInt(smtp, "message_limit")} * 1048576 << EndLine;
  const std::string bcc = GetString(smtp, "always_bcc");
  if (!bcc.empty()) {
    mainCf << "always_bcc = " << bcc << EndLine;
  }
  if (GetBool(smtp, "smtp_ssl_enabled")) {
    mainCf << "smtpd_use_tls = yes" << EndLine;
    mainCf << "tls_random_source = dev:/dev/urandom" << EndLine;
  }
  if (GetBool(smtp, "smtp_relay_enabled")) {
    (void)WriteRelayHost();
  }
  (void)WriteMilters();
  (void)WriteAliasMaps();
  (void)WriteSenderRestrictions();
  (void)WriteRecipientRestrictions();
  (void)WriteHeloRestrictions();

  (void)GenerateHeaderChecks();
  (void)AttachmentFilter::GenerateConfig();

  if (CloseOrRemove(mainCf, temp) < 0) return -1;
  (void)ApplyCustomization(temp, "/var/packages/Brindlecot/etc/customize/postfix/main.cf");
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/main.cf");
}
