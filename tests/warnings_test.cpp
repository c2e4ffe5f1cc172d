#include "preview/warnings.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "mail/certificate.h"
#include "system/program.h"

TEST(Warnings, EachSettingHasItsLine) {
  Postfix smtp;
  MailScanner scanner;
  ImapPop3 imapPop3;
  ASSERT_EQ(smtp.LoadSettings() | scanner.LoadSettings() | imapPop3.LoadSettings(), 0);
  Json::Value aliases, attachments;
  imapPop3.Get("imap_enabled") = Value<bool>{false};
  EXPECT_EQ(SettingsWarnings(smtp, scanner, imapPop3, aliases, attachments, false).size(), 0U);
  smtp.GetAdditionDomain() = {"ü.example", "$$.${mydomain}.$(mydomain).$mydomain", "${", "a$", "@b.example"};
  smtp.GetDNSBLList() = {{"$", "RBL"}};
  smtp.Get("smtp_relay_enabled") = Value<bool>{true};
  smtp.Get("smtp_relay_server_port") = Value<int>{465};
  scanner.Get("spam_enable_rewrite") = Value<bool>{true};
  scanner.Get("spam_rewrite_subject") = Value<std::string>{"#1"};
  aliases["a@b"].append(":include:/etc/shadow");
  aliases["c"].append("|rm");
  aliases["d"] = Json::arrayValue;
  for (const char* name : {"C", "root@localhost", "postmaster", "no-such@far.example", "no-such@LOCALHOST"}) {
    aliases["d"].append(name);
  }
  attachments["deny_extensions"].append("exe");
  std::string keys;
  for (const std::string& line : SettingsWarnings(smtp, scanner, imapPop3, aliases, attachments, true)) {
    const size_t key = line.find(".json: ") + 7;
    keys += line.substr(key, line.find(": ", key) - key) +
            (line.find("xn--tda.example") != line.npos ? "! " : " ");
  }
  EXPECT_EQ(keys,
            "additional_domains! additional_domains additional_domains additional_domains dnsbl "
            "smtp_relay_server_port spam_rewrite_subject imap_enabled deny_extensions a@b a@b c d ");
}

TEST(Warnings, EachParameterHasItsLine) {
  const struct {
    const char* mainCf;
    const char* services;
    const char* said;
  } kCases[] = {
      {"mynetworks = 127.0.0.0/8, [::1]/128 hash:/x 0.0.0.0/0 10.1.2.3", "", ""},
      {"mynetworks = !10.1.2.3/20", "", "write 10.1.0.0/20"},
      {"smtpd_tls_security_level = encrypt", "587 inet n - n - - smtpd", ""},
      {"smtpd_tls_security_level = encrypt", "a unix n - n - - b\n25 inet n - n - - smtpd",
       "port 25 demands TLS"},
      {"", "[::1]:smtp inet n - n - - smtpd\n -o smtpd_tls_security_level=encrypt", "port 25 demands TLS"},
      {"inet_interfaces = localhost, [::1]", "", "only programs on this machine"},
      {"inet_interfaces = 127.0.0.1 192.0.2.1", "", ""},
  };
  for (const auto& row : kCases) {
    const Warnings warnings = PostfixWarnings({ParseParameters(row.mainCf), ParseServices(row.services)});
    ASSERT_EQ(warnings.size(), *row.said == '\0' ? 0U : 1U) << row.mainCf << row.services;
    for (const std::string& warning : warnings)
      EXPECT_NE(warning.find(row.said), std::string::npos) << warning;
  }
}

TEST(Certificates, EachFaultIsNamed) {
  char directory[] = "/tmp/certificatesXXXXXX";
  ASSERT_NE(mkdtemp(directory), nullptr);
  const std::string make = "cd " + std::string(directory) +
                           R"(; new="openssl req -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes"
        exec 2>/dev/null; $new -x509 -subj /CN=self -keyout self.key -out self.crt -days 99
        while read -r name days; do
          $new -subj /CN=x -keyout $name.key -out csr; echo "subjectAltName=DNS:$name" >names
          openssl x509 -req -in csr -CA self.crt -CAkey self.key -set_serial 1 -days $days -extfile names -out $name.crt
        done <<END
expired 0
two.example 99
*.example.com 99
mail.example.com 9
www.example 99
END)";
  ASSERT_EQ(std::system(make.c_str()), 0);
  const struct {
    std::string key;
    std::string certificate;
    bool usable;
    const char* fault;
  } kCases[] = {{"self", "self", true, ""},
                {"two.example", "two.example", true, ""},
                {"*.example.com", "*.example.com", true, ""},
                {"mail.example.com", "mail.example.com", true, "expires in "},
                {"www.example", "www.example", true, "is for www.example, and not for mail.example.com"},
                {"self", "two.example", false, "is not the certificate of the key"},
                {"expired", "expired", false, "has expired"}};
  std::string files;
  for (const auto& row : kCases) {
    files += std::string(directory) + "/" + row.key + ".key " + directory + "/" + row.certificate + ".crt ";
  }
  const std::vector<Certificate> found = Certificates({{{"smtpd_use_tls", "yes"},
                                                        {"myhostname", "mail.example.com"},
                                                        {"mydestination", "localhost, two.example"},
                                                        {"smtpd_tls_chain_files", files}},
                                                       ParseServices("25 inet n - n - - smtpd")});
  ASSERT_EQ(found.size(), std::size(kCases));
  for (size_t i = 0; i < found.size(); ++i) {
    EXPECT_EQ(found[i].usable, kCases[i].usable) << found[i].fault;
    EXPECT_EQ(found[i].fault.empty(), *kCases[i].fault == '\0') << found[i].fault;
    EXPECT_NE(found[i].fault.find(kCases[i].fault), std::string::npos) << found[i].fault;
  }
  const std::string self = std::string(directory) + "/self";
  Parameters mainCf = {{"smtpd_use_tls", "yes"},
                       {"smtpd_tls_eccert_file", self + ".crt"},
                       {"smtpd_tls_eckey_file", self + ".key"}};
  const std::vector<Certificate> own = Certificates(
      {mainCf, ParseServices("25 inet n - n - - smtpd -o smtpd_tls_cert_file=" + self + ".key")});
  ASSERT_EQ(own.size(), 2U);
  EXPECT_EQ(own[0].names, "self");
  EXPECT_EQ(own[1].fault, "holds no certificate, so TLS does not work");
  EXPECT_EQ(Certificates({mainCf, ParseServices("a unix n - n - - smtpd")}).size(), 0U);
  EXPECT_NO_THROW(CheckPair(self + ".crt", self + ".key"));
  EXPECT_THROW(CheckPair(std::string(directory) + "/two.example.crt", self + ".key"), Fault);
  EXPECT_EQ(PublicKey(self + ".key").size(), 124U);  // of 91 bytes
  EXPECT_EQ(PublicKey(self + ".crt"), "");
  ASSERT_EQ(std::system(("rm -r " + std::string(directory)).c_str()), 0);
}
