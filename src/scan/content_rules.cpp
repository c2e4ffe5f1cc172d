#include "core/config_generator.h"

int ConfigGenerator::WriteContentRules() {
  mailScannerConf << "Dangerous Content Scanning = "
                  << YesNo(GetBool(scanner, "enable_dangerous_content_scan")) << EndLine;
  if (!GetBool(scanner, "enable_dangerous_content_scan")) return 0;

  // These two settings reject; MailScanner's parameters allow.
  mailScannerConf << "Allow Partial Messages = " << YesNo(!GetBool(scanner, "reject_partial_message"))
                  << EndLine;
  mailScannerConf << "Allow External Message Bodies = "
                  << YesNo(!GetBool(scanner, "reject_external_message_bodies")) << EndLine;
  mailScannerConf << "Convert HTML To Text = " << YesNo(GetBool(scanner, "convert_html_to_text")) << EndLine;
  mailScannerConf << "Find Phishing Fraud = " << YesNo(GetBool(scanner, "find_phishing_fraud")) << EndLine;
  mailScannerConf << "Also Find Numeric Phishing = " << YesNo(GetBool(scanner, "find_phishing_fraud"))
                  << EndLine;
  mailScannerConf << "Use Stricter Phishing Net = " << YesNo(GetBool(scanner, "find_phishing_fraud"))
                  << EndLine;
  mailScannerConf << "Allow IFrame Tags = " << GetString(scanner, "allow_iframe_tags") << EndLine;
  mailScannerConf << "Allow Form Tags = " << GetString(scanner, "allow_form_tags") << EndLine;
  mailScannerConf << "Allow Script Tags = " << GetString(scanner, "allow_script_tags") << EndLine;
  mailScannerConf << "Allow WebBugs = " << GetString(scanner, "allow_webbugs") << EndLine;
  mailScannerConf << "Allow Object Codebase Tags = " << GetString(scanner, "allow_object_codebase_tags")
                  << EndLine;
  return 0;
}
