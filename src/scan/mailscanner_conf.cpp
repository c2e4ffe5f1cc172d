#include "core/config_generator.h"

namespace {

// MailScanner's action for spam: deliver it as an attachment, without its HTML, or (empty) unchanged.
const char* ReportAction(int mechanism) {
  switch (mechanism) {
    case 1:
      return "attachment";
    case 2:
      return "striphtml";
    default:
      return "";
  }
}

}  // namespace

int ConfigGenerator::GenerateMailScannerConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/MailScanner/MailScanner.confXXXXXX";
  OpenFromTemplate(mailScannerConf, temp,
                   "/var/packages/Brindlecot/target/etc/template/mailscanner.template");

  mailScannerConf << "Virus Scanning = " << YesNo(GetBool(scanner, "anti_virus_enable")) << EndLine;
  mailScannerConf << "Spam Checks = " << YesNo(GetBool(scanner, "spam_enable")) << EndLine;
  mailScannerConf << "Required SpamAssassin Score = " << GetInt(scanner, "spam_required_score") << EndLine;
  mailScannerConf << "High SpamAssassin Score = " << GetInt(scanner, "spam_required_score") << EndLine;
  if (GetBool(scanner, "spam_enable_rewrite")) {
    mailScannerConf << "Spam Modify Subject = start" << EndLine;
    mailScannerConf << "Spam Subject Text = " << GetString(scanner, "spam_rewrite_subject") << EndLine;
    mailScannerConf << "High Scoring Spam Modify Subject = start" << EndLine;
    mailScannerConf << "High Scoring Spam Subject Text = " << GetString(scanner, "spam_rewrite_subject")
                    << EndLine;
  } else {
    mailScannerConf << "Spam Modify Subject = no" << EndLine;
    mailScannerConf << "High Scoring Spam Modify Subject = no" << EndLine;
  }
  const char* action = ReportAction(GetInt(scanner, "spam_report_machanism"));
  mailScannerConf << "Spam Actions = " << action << " deliver header \"X-Spam-Flag: Yes\"" << EndLine;
  mailScannerConf << "High Scoring Spam Actions = " << action << " deliver header \"X-Spam-Flag: Yes\""
                  << EndLine;
  mailScannerConf << "SpamAssassin Auto Whitelist = " << YesNo(GetBool(scanner, "spam_auto_whitelist"))
                  << EndLine;
  (void)WriteContentRules();

  (void)GenerateSpamAssassinConfig();

  if (CloseOrRemove(mailScannerConf, temp) < 0) return -1;
  (void)ApplyCustomization(temp, "/var/packages/Brindlecot/etc/customize/MailScanner/MailScanner.conf");
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/MailScanner/MailScanner.conf");
}
