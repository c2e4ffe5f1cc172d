/// What is read in the daemons' files and logs.
#include <gtest/gtest.h>

#include "mail/dovecot_config.h"
#include "mail/postfix_config.h"
#include "mail/postfix_log.h"
#include "mail/smtp_listeners.h"

namespace {

std::string Text(const Parameters& parameters) {
  std::string text;
  for (const auto& [name, value] : parameters) text += name + "=" + value + ";";
  return text;
}

std::string Text(const Peer& peer) { return peer.via + "|" + peer.host + "|" + peer.port + "|" + peer.path; }

}  // namespace

TEST(PostfixConfig, HasTheServicesOfMasterCf) {
  const struct {
    const char* line;
    const char* service;  // HOST PORT COMMAND, a "-" when it is not private
    const char* options;
  } kCases[] = {
      {"smtp      inet  n       -       y       -       -       smtpd", " 25 smtpd-", ""},
      {"25\tinet\tn\t-\tn\t-\t-\tsmtpd\r", " 25 smtpd-", ""},
      {"#smtp inet n - n - - smtpd\n  # -o x=y\n\n", "", ""},
      {"submission inet n - n - - smtpd\n  -o a=b\n# between\n\t -o c=d\n", " 587 smtpd-", "a=b;c=d;"},
      {"submissions inet n - n - - smtpd -o smtpd_tls_wrappermode=yes -v", " 465 smtpd-",
       "smtpd_tls_wrappermode=yes;"},
      {"[::1]:587 inet n - n - - smtpd -o {smtpd_client_restrictions=permit_mynetworks, reject}",
       "::1 587 smtpd-", "smtpd_client_restrictions=permit_mynetworks, reject;"},
      {"127.0.0.1:10025 inet n - - - - smtpd -o { a = b {c d} e } -oe= -v", "127.0.0.1 10025 smtpd-",
       "a=b {c d} e;e=;"},
      {"mail.example.com:smtp inet - - n - 1 postscreen -o a={b c} -o", "mail.example.com 25 postscreen",
       "a={b c};"},
      {"no-such-port inet n - n - - smtpd", " no-such-port smtpd-", ""},
      {"qmgr unix n - n 300? 1 qmgr", "  qmgr-", ""},
      {"private/x unix - n n - - pipe flags=DRhu user=v argv=/bin/x -f ${sender}", "  pipe", ""},
      {"tlsmgr unix y - - 1000? 1 tlsmgr", "  tlsmgr", ""},
      {"too few columns - - - -", "", ""},
  };
  for (const auto& row : kCases) {
    const std::vector<PostfixService> found = ParseServices(row.line);
    ASSERT_EQ(found.size(), *row.service == '\0' ? 0U : 1U) << row.line;
    if (found.empty()) continue;
    EXPECT_EQ(found[0].host + " " + found[0].port + " " + found[0].command + (found[0].isPrivate ? "" : "-"),
              row.service);
    EXPECT_EQ(Text(found[0].options), row.options);
  }
  const auto two = ParseServices("a unix n - n - - x\nb pass - - n - - y\n -o c=d\n");
  ASSERT_EQ(two.size(), 2U);
  EXPECT_EQ(two[0].name + two[0].type + two[1].name + two[1].type, "aunixbpass");
  EXPECT_EQ(Text(two[0].options) + Text(two[1].options), "c=d;");
}

TEST(PostfixConfig, HasTheParametersOfMainCf) {
  const std::pair<const char*, const char*> kCases[] = {
      {"a = b", "a=b;"},
      {"a=b\nc =d\n", "a=b;c=d;"},
      {"a =\n", "a=;"},
      {"a = b,\n  c\n\n# x = y\n \t d\n", "a=b,  c \t d;"},
      {"  # a = b\nc = d # e\r\n", "c=d # e;"},
      {"a = b = c", "a=b = c;"},
      {"a = 1\na = 2", "a=2;"},
      {"no sign", ""},
      {" first = 1", "first=1;"},
      {"a = \"b c\"", "a=\"b c\";"},
  };
  for (const auto& [text, parameters] : kCases) EXPECT_EQ(Text(ParseParameters(text)), parameters) << text;
  PostfixConfig config = {{{"a", "main"}, {"b", "main"}}, ParseServices("25 inet n - n - - smtpd -o a=own")};
  EXPECT_EQ(config.Value("a") + config.Value("none"), "main");
  EXPECT_EQ(config.Value(config.services[0], "a") + config.Value(config.services[0], "b"), "ownmain");
  EXPECT_EQ(Text(config.AllValues()), "25/inet/a=own;a=main;b=main;");
}

TEST(PostfixConfig, UsesTlsAsPostfixDoes) {
  const struct {
    const char* mainCf;
    const char* service;  // its command and options
    TlsUse use;
  } kCases[] = {
      {"", "smtpd", TlsUse::kNever},
      {"smtpd_use_tls = yes", "smtpd", TlsUse::kOffered},
      {"smtpd_enforce_tls = Yes", "smtpd", TlsUse::kRequired},
      {"smtpd_tls_security_level = may", "smtpd", TlsUse::kOffered},
      {"smtpd_tls_security_level = encrypt", "smtpd", TlsUse::kRequired},
      {"smtpd_tls_security_level = none\nsmtpd_use_tls = yes", "smtpd", TlsUse::kNever},
      {"smtpd_tls_security_level = may\nsmtpd_enforce_tls = yes", "smtpd", TlsUse::kOffered},
      {"smtpd_tls_security_level = none", "smtpd -o smtpd_tls_security_level=encrypt", TlsUse::kRequired},
      {"smtpd_tls_security_level = encrypt\nsmtpd_use_tls = yes",
       "smtpd -o smtpd_tls_security_level=", TlsUse::kOffered},
      {"smtpd_use_tls = yes", "smtpd -o smtpd_use_tls=no", TlsUse::kNever},
      {"smtpd_tls_security_level = none", "smtpd -o {smtpd_tls_wrappermode = yes}", TlsUse::kImplicit},
      {"smtpd_tls_wrappermode = yes", "smtpd -o smtpd_tls_wrappermode=no", TlsUse::kNever},
      {"postscreen_tls_security_level = may", "postscreen", TlsUse::kOffered},
      {"smtpd_tls_wrappermode = yes\npostscreen_enforce_tls = yes", "postscreen", TlsUse::kRequired},
  };
  for (const auto& row : kCases) {
    const PostfixConfig config = {ParseParameters(row.mainCf),
                                  ParseServices(std::string("25 inet n - n - - ") + row.service)};
    EXPECT_EQ(static_cast<int>(TlsOf(config, config.services[0])), static_cast<int>(row.use))
        << row.mainCf << row.service;
  }
}

TEST(PostfixConfig, NamesPeers) {
  const std::pair<const char*, const char*> kCases[] = {
      {"inet:localhost:8891", "inet|localhost|8891|"},
      {"inet:[::1]:8893", "inet|::1|8893|"},
      {"127.0.0.1:10025", "|127.0.0.1|10025|"},
      {"smtp-amavis:[127.0.0.1]:10024", "smtp-amavis|127.0.0.1|10024|"},
      {"lmtp:inet:host.example:24", "lmtp:inet|host.example|24|"},
      {"unix:/run/spamass.sock", "unix|||/run/spamass.sock"},
      {"lmtp:unix:private/lmtp", "lmtp:unix|||private/lmtp"},
      {"local:/run/x.sock", "local|||/run/x.sock"},
      {"[relay.example]:submission", "|relay.example|submission|"},
      {"[relay.example]", "|relay.example||"},
      {"relay:[2001:db8::1]", "relay|2001:db8::1||"},
      {"relay.example", "|relay.example||"},
      {"notlocal:25", "|notlocal|25|"},
      {"", "|||"},
  };
  for (const auto& [word, peer] : kCases) EXPECT_EQ(Text(ParsePeer(word)), peer) << word;
  std::string found;
  for (const Peer& peer :
       PeersIn("check_policy_service {inet:h:1239, timeout=3s},\tunix:private/p hash:/etc/x :11 a:smtp "
               "inet:i:12,[::1]/128 10.0.0.0/8 permit")) {
    found += Text(peer) + " ";
  }
  EXPECT_TRUE(HasPeer("unix:/x, inet:h:8891", "8891") && !HasPeer("inet:h:8891", "889"));
  EXPECT_EQ(found, "inet|h|1239| unix|||private/p inet|i|12| ");
}

TEST(PostfixConfig, KnowsItsDomains) {
  const std::pair<const char*, const char*> kCases[] = {
      {"localhost, localhost.example", "m.example"},
      {"a.example m.example, b.example", "m.example a.example b.example"},
      {"a.example, a.example hash:/x /y $z", "a.example"},
  };
  for (const auto& [destination, domains] : kCases) {
    std::string found;
    for (const std::string& domain :
         LocalDomains({{"mydestination", destination}, {"myhostname", "m.example"}}))
      found += (found.empty() ? "" : " ") + domain;
    EXPECT_EQ(found, domains);
  }
}

TEST(SmtpListeners, AreThoseOfMasterCf) {
  const std::string mainCf = "inet_interfaces = 127.0.0.1, 192.0.2.1 [2001:db8::1]\ninet_protocols = all\n";
  const struct {
    const char* mainCf;
    const char* line;
    const char*
        seen;  // PORT REACHED_AT OUTSIDE; implicitTls, startTls, requiresTls, requiresLogin, offersLogin
  } kCases[] = {
      {"", "smtp inet n - n - - smtpd", "25 127.0.0.1 192.0.2.1 2001:db8::1 "},
      {"inet_protocols = ipv4", "25 inet n - n - - postscreen", "25 127.0.0.1 192.0.2.1 "},
      {"inet_protocols = ipv6", "25 inet n - n - - smtpd", "25 2001:db8::1 2001:db8::1 "},
      {"", "[::1]:587 inet n - n - - smtpd", "587 ::1 "},
      {"inet_interfaces = loopback-only", "25 inet n - n - - smtpd", "25 127.0.0.1 "},
      {"inet_interfaces = loopback-only\ninet_protocols = ipv6", "25 inet n - n - - smtpd", "25 ::1 "},
      {"smtpd_tls_security_level = may", "192.0.2.9:25 inet n - n - - smtpd", "25 192.0.2.9 192.0.2.9 s"},
      {"smtpd_tls_security_level = none\nsmtpd_use_tls = yes\nsmtpd_sasl_auth_enable = yes",
       "127.0.0.2:25 inet n - n - - smtpd", "25 127.0.0.2 l"},
      {"smtpd_sasl_auth_enable = yes\nsmtpd_tls_auth_only = yes", "127.0.0.2:25 inet n - n - - smtpd",
       "25 127.0.0.2 "},
      {"smtpd_sasl_auth_enable = yes\nsmtpd_tls_auth_only = yes",
       "127.0.0.2:465 inet n - n - - smtpd -o smtpd_tls_wrappermode=yes", "465 127.0.0.2 wml"},
      {"smtpd_recipient_restrictions = permit_sasl_authenticated, reject",
       "127.0.0.2:587 inet n - n - - smtpd -o smtpd_tls_security_level=encrypt -o "
       "{smtpd_client_restrictions=permit_mynetworks, permit_sasl_authenticated, reject}",
       "587 127.0.0.2 smu"},
      {"smtpd_recipient_restrictions = permit_sasl_authenticated, reject",
       "127.0.0.2:587 inet n - n - - smtpd -o {smtpd_relay_restrictions=permit_mynetworks, reject}",
       "587 127.0.0.2 "},
      {"", "25 unix n - n - - smtpd", ""},
      {"", "25 inet n - n - - qmqpd", ""},
  };
  for (const auto& row : kCases) {
    std::string seen;
    for (const SmtpListener& one :
         SmtpListeners({ParseParameters(mainCf + row.mainCf), ParseServices(row.line)})) {
      seen = one.port + " " + one.reachableAt + " ";
      for (const std::string& address : one.outside) seen += address + " ";
      seen += std::string(one.implicitTls ? "w" : "") + (one.startTls ? "s" : "") +
              (one.requiresTls ? "m" : "") + (one.requiresLogin ? "u" : "") + (one.offersLogin ? "l" : "");
    }
    EXPECT_EQ(seen, row.seen) << row.mainCf << row.line;
  }
}

TEST(PostfixLog, IsReadLineByLine) {
  const std::string head = "Nov  6 12:00:00 mail postfix/";
  const struct {
    std::string line;
    const char* seen;  // PROGRAM QUEUE_ID EVENT, and the fields that are not empty
  } kCases[] = {
      {head + "cleanup[77]: 4XqZr53zKlz9vBN: message-id=<1.2@mail>",
       "postfix/cleanup 4XqZr53zKlz9vBN 1 <1.2@mail>"},
      {"2026-11-26T12:00:00.123456+00:00 mail postfix/qmgr[7]: 0A1B2C3D4E: from=<a@b>, size=1, nrcpt=1 "
       "(queue active)",
       "postfix/qmgr 0A1B2C3D4E 2"},
      {head + "cleanup[7]: A1: hold: header Received: x: removed; from=<a> to=<b>", "postfix/cleanup A1 3"},
      {head + "cleanup[7]: A1: milter-reject: END-OF-MESSAGE from x: 4.7.1 y", "postfix/cleanup A1 4"},
      {head + "local[7]: A1: to=<alice@b>, orig_to=<postmaster>, relay=local, delay=0.1, delays=0/0/0/0.1, "
              "dsn=2.0.0, status=sent (delivered to maildir)",
       "postfix/local A1 5 to:alice@b for:postmaster sent"},
      {head + "smtp[7]: A1: to=<\"x, relay=y\"@b>, relay=mx.b[2001:db8::1]:25, delay=1, dsn=2.0.0, "
              "status=sent (250)",
       "postfix/smtp A1 5 to:\"x, relay=y\"@b at:2001:db8::1 25 sent"},
      {head + "smtp[7]: A1: to=<a@b>, relay=none, delay=1, dsn=4.4.1, status=deferred (connect to "
              "localhost[127.0.0.1]:10024: Connection refused)",
       "postfix/smtp A1 5 to:a@b not:127.0.0.1 10024 deferred"},
      {head + "lmtp[7]: A1: to=<a@b>, relay=none, dsn=4.4.1, status=deferred (connect to b[private/lmtp]: No "
              "such file)",
       "postfix/lmtp A1 5 to:a@b not:private/lmtp deferred"},
      {head + "smtp[7]: A1: to=<a@b>, relay=b[192.0.2.1]:25, status=bounced (host b[192.0.2.1] said: 550 x)",
       "postfix/smtp A1 5 to:a@b at:192.0.2.1 25 bounced"},
      {head + "smtp[7]: A1: host b[192.0.2.1] said: 450 to=<a@b>, status=sent (", "postfix/smtp A1 0"},
      {head + "qmgr[7]: A1: removed", "postfix/qmgr A1 6"},
      {"<22>Nov 26 12:00:00 postfix/smtpd[7]: fatal: no SASL: x", "postfix/smtpd  7"},
      {"<22>Nov 26 12:00:00 dovecot: imap: Error: y", "dovecot  0"},
      {head + "smtpd[7]: warning: A1: removed", "postfix/smtpd  0"},
      {head + "smtpd[7]: NOQUEUE: milter-reject: RCPT from x", "postfix/smtpd  0"},
      {head + "smtpd[7]: A1: fatal: x", "postfix/smtpd A1 0"},
      {"Nov 26 12:00:00 mail last message repeated 2 times", ""},
      {"Nov 26 12:00:00 mail last message: repeated", ""},
      {"Nov 26 12:00:00  x: y", ""},
      {"Nov 26", ""},
      {"", ""},
  };
  for (const auto& row : kCases) {
    const auto line = ParsePostfixLogLine(row.line);
    std::string seen;
    const auto add = [&](const std::string& title, const std::string& text) {
      if (!text.empty()) seen += " " + title + text;
    };
    const auto place = [](const Peer& peer) {
      return peer.path.empty() && !peer.host.empty() ? peer.host + " " + peer.port : peer.path;
    };
    if (line) {
      seen = line->program + " " + line->queueId + " " + std::to_string(static_cast<int>(line->event));
      add("", line->messageId);
      add("to:", line->to);
      add("for:", line->originalTo);
      add("at:", place(line->relay));
      add("not:", place(line->unreachable));
      add("", line->status);
      if (!line->status.empty()) {
        EXPECT_EQ(line->said.substr(line->said.find(" status=") + 1),
                  "status=" + line->status + " " + line->reason);
      }
      EXPECT_EQ(line->text, (line->queueId.empty() ? "" : line->queueId + ": ") + line->said);
      EXPECT_EQ(row.line.substr(row.line.size() - line->text.size()), line->text);
    }
    EXPECT_EQ(seen, row.seen) << row.line;
  }
}

TEST(DovecotConfig, HasBlocks) {
  const std::pair<const char*, const char*> kCases[] = {
      {"protocols = imap pop3\n", ":protocols=imap pop3;"},
      {"# a = b\n\n  c=d  \r\n", ":c=d;"},
      {"a = \"\\\\b#\"\nssl_key = # hidden, use -P to show it\nb = c # d", ":a=\\\\b#;b=c;ssl_key=;"},
      {"a = </x\n", ":a=</x;"},
      {"passdb {\n  args = session=yes x\n  driver = pam\n}\na = b\n",
       ":a=b; passdb:args=session=yes x;driver=pam;"},
      {"passdb {\n}\npassdb {\na = b\n}", ": passdb: passdb:a=b;"},
      {"service imap-login {\n  inet_listener imaps {\n    port = 1\n  }\n  x = y\n}\n",
       ": service imap-login:x=y; service imap-login/inet_listener imaps:port=1;"},
      {"protocol !smtp{\na=b\n}", ": protocol !smtp:a=b;"},
      {"}\n!include_try conf.d/*.conf\na = b", ":a=b;"},
      {"a =\n", ":a=;"},
      {"a = \"\"", ":a=;"},
  };
  for (const auto& [text, blocks] : kCases) {
    std::string found;
    for (const DovecotBlock& one : ParseDovecot(text))
      found += (found.empty() ? "" : " ") + one.name + ":" + Text(one.settings);
    EXPECT_EQ(found, blocks) << text;
  }
}

TEST(DovecotConfig, HasListeners) {
  const std::string imaps = "service imap-login {\n inet_listener imaps {\n";
  const std::pair<std::string, const char*> kCases[] = {
      {"protocols = imap pop3", "imap:143s imaps:993i pop3:110s pop3s:995i "},
      {"protocols = $protocols imap", "imap:143s imaps:993i pop3: pop3s: "},
      {"protocols = imap\nssl = no", "imap:143 imaps:993i pop3: pop3s: "},
      {"protocols = imap\nssl = required", "imap:143s imaps:993i pop3: pop3s: "},
      {"protocols = imap\n" + imaps + "port = 0\n}\n}", "imap:143s imaps: pop3: pop3s: "},
      {"protocols = imap\n" + imaps + "port = 9993\naddress = localhost, 192.0.2.1\n}\n}",
       "imap:143s imaps:9993i@localhost@192.0.2.1 pop3: pop3s: "},
      {"protocols {\n}\nprotocols = imap\n" + imaps + "listen = ::\n ssl = no\n}\n}",
       "imap:143s imaps:993s@:: pop3: pop3s: "},
      {"protocols = imap\nservice imap-login {\ninet_listener imap {\nssl = yes\n}\n}",
       "imap:143i imaps:993i pop3: pop3s: "},
      {"protocols = lmtp pop3\nservice pop3-login {\ninet_listener pop3 {\nport = 0\n}\n}",
       "imap: imaps: pop3: pop3s:995i "},
      {"", "imap: imaps: pop3: pop3s: "},
  };
  for (const auto& [text, listeners] : kCases) {
    std::string found;
    for (const DovecotListener& one : DovecotListeners(ParseDovecot(text))) {
      found += one.name + ":" + one.port;
      if (!one.port.empty()) found += std::string(one.implicitTls ? "i" : "") + (one.startTls ? "s" : "");
      for (const std::string& address : one.addresses) found += "@" + address;
      found += " ";
    }
    EXPECT_EQ(found, listeners) << text;
  }
}

TEST(DovecotConfig, NamesCertificatesSocketsAndPamServices) {
  const std::pair<const char*, const char*> kCases[] = {
      {"ssl_cert = </a.crt\nssl_key = < /a.key", "/a.crt /a.key "},
      {"ssl_server_cert_file = /a\nssl_server_key_file = /b\n", "/a /b "},
      {"ssl_server {\n cert_file = /a\n key_file = /b\n}\n", "/a /b "},
      {"ssl_cert = </a\nssl_key = </b\nlocal_name x {\nssl_cert = </c\nssl_key = </d\n}", "/a /b /c /d "},
      {"ssl = no\nssl_cert = </a\nssl_key = </b", ""},
      {"ssl_cert = </a\nssl_ca = </b", ""},
      {"service auth {\nunix_listener /run/x/auth {\nmode = 0660\n}\nunix_listener login {\n}\n}",
       "/run/x/auth login "},
      {"passdb {\nargs = session=yes dovecot.local\ndriver = pam\n}", "dovecot.local "},
      {"passdb {\ndriver = pam\nargs = %s\n}\nuserdb {\nargs = x\ndriver = ldap\n}", ""},
      {"passdb pam {\npassdb_pam_service_name = smtp.local\n}", "smtp.local "},
      {"passdb {\ndriver = pam\n}", ""},
  };
  for (const auto& [text, names] : kCases) {
    const DovecotConfig config = ParseDovecot(text);
    std::string found;
    for (const auto& [certificate, key] : DovecotCertificates(config)) found += certificate + " " + key + " ";
    for (const std::string& path : DovecotSockets(config)) found += path + " ";
    for (const std::string& service : PamServices(config)) found += service + " ";
    EXPECT_EQ(found, names) << text;
  }
}
