#include "core/config_generator.h"

int ConfigGenerator::WriteContentRules() {
  mailScannerConf << "Dangerous Content Scanning = "
                  << YesNo(GetBool(scanner, "enable_dangerous_content_scan")) << std::endl;
  if (!GetBool(scanner, "enable_dangerous_content_scan")) return 0;

  // Two settings say what is rejected, MailScanner what is allowed.
  mailScannerConf << "Allow Partial Messages = " << YesNo(!GetBool(scanner, "reject_partial_message"))
                  << std::endl;
  mailScannerConf << "Allow External Message Bodies = "
                  << YesNo(!GetBool(scanner, "reject_external_message_bodies")) << std::endl;
  mailScannerConf << "Convert HTML To Text = " << YesNo(GetBool(scanner, "convert_html_to_text"))
                  << std::endl;
  mailScannerConf << "Find Phishing Fraud = " << YesNo(GetBool(scanner, "find_phishing_fraud")) << std::endl;
  mailScannerConf << "Also Find Numeric Phishing = " << YesNo(GetBool(scanner, "find_phishing_fraud"))
                  << std::endl;
  mailScannerConf << "Use Stricter Phishing Net = " << YesNo(GetBool(scanner, "find_phishing_fraud"))
                  << std::endl;
  mailScannerConf << "Allow IFrame Tags = " << GetString(scanner, "allow_iframe_tags") << std::endl;
  mailScannerConf << "Allow Form Tags = " << GetString(scanner, "allow_form_tags") << std::endl;
  mailScannerConf << "Allow Script Tags = " << GetString(scanner, "allow_script_tags") << std::endl;
  mailScannerConf << "Allow WebBugs = " << GetString(scanner, "allow_webbugs") << std::endl;
  mailScannerConf << "Allow Object Codebase Tags = " << GetString(scanner, "allow_object_codebase_tags")
                  << std::endl;
  return 0;
}
