#include "preview/warnings.h"

#include <gtest/gtest.h>

TEST(Warnings, EachSettingHasItsLine) {
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  ASSERT_EQ(smtp.LoadSettings() | scanner.LoadSettings() | imapPop3.LoadSettings(), 0);
  Json::Value aliases, attachments;
  imapPop3.Get("imap_enabled") = Value<bool>{false};
  EXPECT_EQ(SettingsWarnings(smtp, scanner, imapPop3, aliases, attachments, false).size(), 0U);
  smtp.GetAdditionDomain() = {"ü.example", "$$.${mydomain}.$(mydomain).$mydomain", "${", "a$"};
  smtp.GetDNSBLList() = {{"$", "RBL"}};
  smtp.Get("smtp_relay_enabled") = Value<bool>{true};
  smtp.Get("smtp_relay_server_port") = Value<int>{465};
  scanner.Get("spam_enable_rewrite") = Value<bool>{true};
  scanner.Get("spam_rewrite_subject") = Value<std::string>{"#1"};
  aliases["a@b"].append(":include:/etc/shadow");
  aliases["c"].append("|rm");
  attachments["deny_extensions"].append("exe");
  std::string keys;
  for (const std::string& line : SettingsWarnings(smtp, scanner, imapPop3, aliases, attachments, true)) {
    const size_t key = line.find(".json: ") + 7;
    keys += line.substr(key, line.find(": ", key) - key) +
            (line.find("xn--tda.example") != line.npos ? "! " : " ");
  }
  EXPECT_EQ(keys,
            "additional_domains! additional_domains additional_domains dnsbl smtp_relay_server_port "
            "spam_rewrite_subject imap_enabled a@b a@b c deny_extensions ");
}
