#include <cstdint>
#include <tuple>

#include "core/config_generator.h"

int ConfigGenerator::GenerateMainCf() {
  std::ignore = UpdatePamConfig();

  char temp[] = "/var/packages/Brindlecot/target/etc/main.cfXXXXXX";
  OpenFromTemplate(mainCf, temp, "/var/packages/Brindlecot/target/etc/template/main.template");

  const std::string hostname = GetString(smtp, "smtp_hostname");
  mainCf << "myhostname = " << (hostname.empty() ? "localhost" : hostname) << std::endl;
  mainCf << "smtpd_sasl_auth_enable = " << YesNo(GetBool(smtp, "smtp_auth_enabled")) << std::endl;
  if (!GetBool(smtp, "smtp_ignore_lan_auth")) {
    mainCf << "mynetworks = 127.0.0.0/8, [::1]/128" << std::endl;
  }
  const std::list<std::string> domains = smtp.GetAdditionDomain();
  mainCf << "mydestination = $myhostname, localhost.$mydomain, localhost, " << JoinList(domains, ", ")
         << std::endl;
  // The setting is in megabytes. Wide, because 2048 of them do not fit 32 bits.
  mainCf << "message_size_limit = " << std::int64_t{GetInt(smtp, "message_limit")} * 1048576 << std::endl;
  const std::string bcc = GetString(smtp, "always_bcc");
  if (!bcc.empty()) {
    mainCf << "always_bcc = " << bcc << std::endl;
  }
  if (GetBool(smtp, "smtp_ssl_enabled")) {
    mainCf << "smtpd_use_tls = yes" << std::endl;
    mainCf << "tls_random_source = dev:/dev/urandom" << std::endl;
  }
  if (GetBool(smtp, "smtp_relay_enabled")) {
    std::ignore = WriteRelayHost();
  }
  std::ignore = WriteMilters();
  std::ignore = WriteAliasMaps();
  std::ignore = WriteSenderRestrictions();
  std::ignore = WriteRecipientRestrictions();
  std::ignore = WriteHeloRestrictions();

  std::ignore = GenerateHeaderChecks();
  std::ignore = AttachmentFilter::GenerateConfig();

  CloseStream(mainCf);
  std::ignore = ApplyCustomization(temp, "/var/packages/Brindlecot/etc/customize/postfix/main.cf");
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/main.cf");
}
