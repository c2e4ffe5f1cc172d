/// What is read in the daemons' files and logs.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>

#include "mail/daemons.h"
#include "mail/dovecot_config.h"
#include "mail/listeners.h"
#include "mail/postfix_config.h"
#include "mail/postfix_log.h"
#include "mail/smtp_listeners.h"
#include "system/text.h"

namespace {

// Texts, and what is read in each.
using Rows = std::vector<std::pair<std::string, std::string>>;

void ExpectReads(const Rows& rows, const std::function<std::string(const std::string&)>& read) {
  for (const auto& [text, seen] : rows) EXPECT_EQ(read(text), seen) << text;
}

std::string Text(const Parameters& parameters) {
  std::string text;
  for (const auto& [name, value] : parameters) text += name + "=" + value + ";";
  return text;
}

std::string Text(const Peer& peer) { return peer.via + "|" + peer.host + "|" + peer.port + "|" + peer.path; }

std::string Text(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) text += word + " ";
  return text;
}

// A service, up to the end of the text's first line, and the main.cf after it.
PostfixConfig ConfigOf(const std::string& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  return {ParseParameters(text.substr(end)), ParseServices(text.substr(0, end))};
}

}  // namespace

TEST(Daemons, KnowTheirFilesAndWords) {
  const auto names = [](const std::set<DaemonId>& daemons) {
    std::string text;
    for (const DaemonId id : daemons) text += DaemonOf(id).name + " ";
    return text;
  };
  ExpectReads(
      {
          {kEtc + "/main.cf", "Postfix "},
          {kEtc + "/access/client_access", "Postfix "},
          {kEtc + "/opendkim.conf", "OpenDKIM "},
          {kEtc + "/opendmarc.conf", "OpenDMARC "},
          {kEtc + "/dovecot/conf.d/10-mail.conf", "Dovecot "},
          {kEtc + "/MailScanner/MailScanner.conf", "MailScanner "},
          {kEtc + "/spamassassin/local.cf", "MailScanner "},
          {kSsl, "Dovecot Postfix "},
          {"/etc/postfix/main.cf", ""},
      },
      [&](const std::string& path) { return names(ReadersOf({path})); });
  EXPECT_EQ(names(ReadersOf({kEtc + "/main.cf", kEtc + "/opendkim.conf"})), "OpenDKIM Postfix ");
  ExpectReads(
      {
          {"smtp", "OpenDKIM OpenDMARC Postfix "},
          {"dovecot mailscanner", "Dovecot MailScanner "},
          {"alias", "Postfix "},
          {"domain_alias", "Postfix "},
          {"sender_quota_map", "Postfix "},
      },
      [&](const std::string& words) { return names(WrittenFor(Words(words))); });
  ExpectReads({{"inet:localhost:8891", "OpenDKIM Dovecot Postfix "}, {"", "Dovecot Postfix "}},
              [&](const std::string& milters) {
                std::set<DaemonId> wanted;
                for (const Daemon& one : Daemons()) {
                  if (IsWanted(one, {{"smtpd_milters", milters}})) wanted.insert(one.id);
                }
                return names(wanted);
              });
}

// NAME TYPE, HOST PORT, the program, "-" when it is public, and the options.
TEST(PostfixConfig, HasTheServicesOfMasterCf) {
  const Rows rows = {
      {"smtp      inet  n       -       y       -       -       smtpd", "smtp inet||25|smtpd-|"},
      {"25\tinet\tn\t-\tn\t-\t-\tsmtpd\r", "25 inet||25|smtpd-|"},
      {"#smtp inet n - n - - smtpd\n  # -o x=y\n\n", ""},
      {"submission inet n - n - - x\n  -o a=b\n# between\n\t -o c=d\n", "submission inet||587|x-|a=b;c=d;"},
      {"submissions inet n - n - - smtpd -o tls=yes -v", "submissions inet||465|smtpd-|tls=yes;"},
      {"[::1]:587 inet n - n - - x -o {a=permit, reject}", "[::1]:587 inet|::1|587|x-|a=permit, reject;"},
      {"127.0.0.1:1 inet n - - - - x -o { a = b {c d} e } -oe= -v",
       "127.0.0.1:1 inet|127.0.0.1|1|x-|a=b {c d} e;e=;"},
      {"m.example:smtp inet - - n - 1 x -o a={b c} -o", "m.example:smtp inet|m.example|25|x|a={b c};"},
      {"no-port inet n - n - - smtpd", "no-port inet||no-port|smtpd-|"},
      {"p/x unix - n n - - pipe flags=DRhu user=v argv=/bin/x -f ${sender}", "p/x unix|||pipe|"},
      {"a unix y - - 1000? 1 tlsmgr\nb pass n - n - - y\n -o c=d\n", "a unix|||tlsmgr|b pass|||y-|c=d;"},
      {"too few columns - - - -", ""}};
  ExpectReads(rows, [](const std::string& text) {
    std::string seen;
    for (const PostfixService& one : ParseServices(text)) {
      seen += one.name + " " + one.type + "|" + one.host + "|" + one.port + "|" + one.command +
              (one.isPrivate ? "|" : "-|") + Text(one.options);
    }
    return seen;
  });
}

TEST(PostfixConfig, HasTheParametersOfMainCf) {
  const Rows rows = {{"a=b\nc =d\n", "a=b;c=d;"},
                     {"a =\n", "a=;"},
                     {"a = b,\n  c\n\n# x = y\n \t d\n", "a=b,  c \t d;"},
                     {"  # a = b\nc = d # e\r\n", "c=d # e;"},
                     {"a = b = c", "a=b = c;"},
                     {"a = 1\na = 2", "a=2;"},
                     {"no sign", ""},
                     {" first = 1", "first=1;"}};
  ExpectReads(rows, [](const std::string& text) { return Text(ParseParameters(text)); });
  const PostfixConfig config = ConfigOf("25 inet n - n - - smtpd -o a=own\na = main\nb = main\n");
  EXPECT_EQ(config.Value("a") + config.Value("none"), "main");
  EXPECT_EQ(config.Value(config.services[0], "a") + config.Value(config.services[0], "b"), "ownmain");
  EXPECT_EQ(Text(config.AllValues()), "25/inet/a=own;a=main;b=main;");
}

// The service, and main.cf after it.
TEST(PostfixConfig, UsesTlsAsPostfixDoes) {
  const Rows rows = {
      {"smtpd\nsmtpd_use_tls = yes", "offered"},
      {"smtpd\nsmtpd_enforce_tls = Yes", "required"},
      {"smtpd\nsmtpd_tls_security_level = encrypt", "required"},
      {"smtpd\nsmtpd_tls_security_level = none\nsmtpd_use_tls = yes", "never"},
      {"smtpd\nsmtpd_tls_security_level = may\nsmtpd_enforce_tls = yes", "offered"},
      {"smtpd -o smtpd_tls_security_level=encrypt\nsmtpd_tls_security_level = may", "required"},
      {"smtpd -o smtpd_tls_security_level=\nsmtpd_tls_security_level = may", "never"},
      {"smtpd -o smtpd_use_tls=no\nsmtpd_use_tls = yes", "never"},
      {"smtpd -o {smtpd_tls_wrappermode = yes}\nsmtpd_tls_security_level = none", "implicit"},
      {"postscreen\npostscreen_tls_security_level = may", "offered"},
      {"postscreen\nsmtpd_tls_wrappermode = yes\npostscreen_enforce_tls = yes", "required"}};
  ExpectReads(rows, [](const std::string& text) {
    const PostfixConfig config = ConfigOf("25 inet n - n - - " + text);
    const std::vector<std::string> uses = {"never", "offered", "required", "implicit"};
    return uses[static_cast<size_t>(TlsOf(config, config.services[0]))];
  });
}

TEST(PostfixConfig, NamesPeers) {
  const Rows rows = {{"inet:localhost:8891", "inet|localhost|8891|"},
                     {"inet:[::1]:8893", "inet|::1|8893|"},
                     {"scan:[127.0.0.1]:10024", "scan|127.0.0.1|10024|"},
                     {"lmtp:inet:host.example:24", "lmtp:inet|host.example|24|"},
                     {"unix:/run/unix:x", "unix|||/run/unix:x"},
                     {"lmtp:unix:private/lmtp", "lmtp:unix|||private/lmtp"},
                     {"local:/run/x.sock", "local|||/run/x.sock"},
                     {"[relay.example]:submission", "|relay.example|submission|"},
                     {"relay:[2001:db8::1]", "relay|2001:db8::1||"},
                     {"xunix:25", "|xunix|25|"},
                     {"", "|||"}};
  ExpectReads(rows, [](const std::string& text) { return Text(ParsePeer(text)); });
  const std::string value =
      "check_policy_service {inet:h:1239, timeout=3s},\tunix:private/p hash:/x :11 a:smtp [::1]/128 "
      "10.0.0.0/8";
  std::string found;
  for (const Peer& peer : PeersIn(value)) found += Text(peer) + " ";
  EXPECT_EQ(found, "inet|h|1239| unix|||private/p ");
  EXPECT_TRUE(HasPeer(value, "1239") && !HasPeer(value, "239"));
}

TEST(PostfixConfig, KnowsItsDomains) {
  const Rows rows = {{"localhost, localhost.example", "m.example "},
                     {"a.example m.example, b.example", "m.example a.example b.example "},
                     {"a.example, a.example static:x /y $z", "a.example "}};
  ExpectReads(rows, [](const std::string& text) {
    return Text(LocalDomains({{"mydestination", text}, {"myhostname", "m.example"}}));
  });
}

// The service and main.cf; PORT REACHED_AT OUTSIDE, and whether it has implicit TLS, STARTTLS, requires TLS,
// requires a login, offers one.
TEST(SmtpListeners, AreThoseOfMasterCf) {
  const Rows rows = {
      {"smtp inet n - n - - smtpd", "25 127.0.0.1 192.0.2.1 2001:db8::1 "},
      {"25 inet n - n - - postscreen\ninet_protocols = ipv4", "25 127.0.0.1 192.0.2.1 "},
      {"25 inet n - n - - smtpd\ninet_protocols = ipv6", "25 2001:db8::1 2001:db8::1 "},
      {"[::1]:587 inet n - n - - smtpd", "587 ::1 "},
      {"25 inet n - n - - smtpd\ninet_interfaces = loopback-only", "25 127.0.0.1 "},
      {"192.0.2.9:25 inet n - n - - smtpd\nsmtpd_tls_security_level = may", "25 192.0.2.9 192.0.2.9 s"},
      {"127.0.0.2:25 inet n - n - - smtpd\nsmtpd_tls_security_level = none\nsmtpd_use_tls = yes\n"
       "smtpd_sasl_auth_enable = yes",
       "25 127.0.0.2 l"},
      {"127.0.0.2:25 inet n - n - - smtpd\nsmtpd_sasl_auth_enable = yes\nsmtpd_tls_auth_only = yes",
       "25 127.0.0.2 "},
      {"127.0.0.2:465 inet n - n - - smtpd -o smtpd_tls_wrappermode=yes\nsmtpd_sasl_auth_enable = yes\n"
       "smtpd_tls_auth_only = yes",
       "465 127.0.0.2 itl"},
      {"127.0.0.2:587 inet n - n - - smtpd -o smtpd_tls_security_level=encrypt -o "
       "{smtpd_client_restrictions=permit_mynetworks, permit_sasl_authenticated, reject}",
       "587 127.0.0.2 stu"},
      {"127.0.0.2:587 inet n - n - - smtpd -o {smtpd_relay_restrictions=permit_mynetworks, reject}\n"
       "smtpd_recipient_restrictions = permit_sasl_authenticated, reject",
       "587 127.0.0.2 u"},
      {"25 unix n - n - - smtpd", ""},
      {"25 inet n - n - - qmqpd", ""}};
  ExpectReads(rows, [](const std::string& text) {
    PostfixConfig config = ConfigOf(text);
    config.parameters.insert({"inet_interfaces", "127.0.0.1, 192.0.2.1 [2001:db8::1]"});
    config.parameters.insert({"inet_protocols", "all"});
    std::string seen;
    for (const SmtpListener& one : SmtpListeners(config)) {
      seen += one.port + " " + one.reachableAt + " " + Text(one.outside) + (one.implicitTls ? "i" : "") +
              (one.startTls ? "s" : "") + (one.requiresTls ? "t" : "") + (one.closed ? "u" : "") +
              (one.offersLogin ? "l" : "");
    }
    return seen;
  });
}

TEST(Listeners, AreThoseOfTheKernelsTables) {
  const std::string rest =
      " 00000000:00000000 00:00000000 00000000   117        0 4711 1 0000 100 0 0 10 0\n";
  const Rows rows = {
      {"  sl  local_address rem_address   st tx_queue rx_queue", ""},
      {"  0: 0100007F:0019 00000000:0000 0A" + rest, "127.0.0.1 25 117 4711"},
      {"  1: 0100007F:0050 00000000:0000 01" + rest, ""},
      {"  2: 00000000000000000000000001000000:F230 00000000000000000000000000000000:0000 0A" + rest,
       "::1 62000 117 4711"}};
  ExpectReads(rows, [](const std::string& text) {
    std::string seen;
    for (const TcpListener& one : ParseTcpListeners(text)) {
      seen += one.address + " " + one.port + " " + std::to_string(one.uid) + " " + std::to_string(one.inode);
    }
    return seen;
  });
  const Rows sockets = {{"0: 00000002 00000000 00010000 0001 01 1 /run/a\n", "/run/a "},
                        {"0: 00000003 00000000 00000000 0001 03 2 /run/b\n", ""},
                        {"0: 00000002 00000000 00010000 0001 01 3\n", ""}};
  ExpectReads(sockets, [](const std::string& text) { return Text(ParseUnixListeners(text)); });
}

// PROGRAM QUEUE_ID EVENT, and the fields that are not empty.
TEST(PostfixLog, IsReadLineByLine) {
  const std::string head = "Nov  6 12:00:00 mail postfix/";
  const Rows rows = {
      {head + "cleanup[77]: 4XqZr53zKlz9vBN: message-id=<1=2@mail>",
       "postfix/cleanup 4XqZr53zKlz9vBN 1 <1=2@mail>"},
      {"2026-11-26T12:00:00.123456+00:00 mail postfix/qmgr[7]: 0A1B2C: from=<a>, nrcpt=1 (queue active)",
       "postfix/qmgr 0A1B2C 2"},
      {head + "cleanup[7]: A1: hold: header Received: x: removed; to=<b>", "postfix/cleanup A1 3"},
      {head + "cleanup[7]: A1: milter-reject: END-OF-MESSAGE from x: 4.7.1 y", "postfix/cleanup A1 4"},
      {head + "local[7]: A1: to=<alice@b>, orig_to=<postmaster>, relay=local, delay=0.1, delays=0/0/0/0.1, "
              "dsn=2.0.0, status=sent (delivered to maildir)",
       "postfix/local A1 5 to:alice@b for:postmaster sent (delivered to maildir)"},
      {head + "smtp[7]: A1: to=<\"x, relay=y\"@b>, relay=mx.b[2001:db8::1]:25, delay=1, status=sent (250)",
       "postfix/smtp A1 5 to:\"x, relay=y\"@b at:|2001:db8::1|25| sent (250)"},
      {head + "smtp[7]: A1: to=<a@b>, relay=none, dsn=4.4.1, status=deferred (connect to "
              "localhost[127.0.0.1]:10024: Connection refused)",
       "postfix/smtp A1 5 to:a@b not:|127.0.0.1|10024| deferred (connect to localhost[127.0.0.1]:10024: "
       "Connection refused)"},
      {head + "lmtp[7]: A1: to=<a@b>, relay=none, status=deferred (connect to b[private/lmtp]: No)",
       "postfix/lmtp A1 5 to:a@b not:|||private/lmtp deferred (connect to b[private/lmtp]: No)"},
      {head + "smtp[7]: A1: to=<a@b>, relay=b[192.0.2.1]:25, status=bounced (host b[192.0.2.2] said: 550)",
       "postfix/smtp A1 5 to:a@b at:|192.0.2.1|25| bounced (host b[192.0.2.2] said: 550)"},
      {head + "smtp[7]: A1: host b[192.0.2.1] said: 450 to=<a@b>, status=sent (", "postfix/smtp A1 0"},
      {head + "qmgr[7]: A1: from=<a@b>, status=expired, returned to sender", "postfix/qmgr A1 0"},
      {head + "qmgr[7]: A1: removed", "postfix/qmgr A1 6"},
      {"<22>Nov 26 12:00:00 postfix/smtpd[7]: fatal: no SASL: x>y", "postfix/smtpd  7"},
      {"<22>Nov 26 12:00:00 dovecot: imap: Error: y", "dovecot  0"},
      {head + "smtpd[7]: warning: A1: removed", "postfix/smtpd  0"},
      {head + "smtpd[7]: A1: fatal: x", "postfix/smtpd A1 0"},
      {"", ""}};
  ExpectReads(rows, [](const std::string& text) {
    const auto line = ParsePostfixLogLine(text);
    if (!line) return std::string();
    std::string seen =
        line->program + " " + line->queueId + " " + std::to_string(static_cast<int>(line->event));
    const auto add = [&](const std::string& title, const std::string& field) {
      if (!field.empty() && field != "|||") seen += " " + title + field;
    };
    add("", line->messageId);
    add("to:", line->to);
    add("for:", line->originalTo);
    add("at:", Text(line->relay));
    add("not:", Text(line->unreachable));
    add("", line->status);
    add("", line->reason);
    EXPECT_EQ(line->text, (line->queueId.empty() ? "" : line->queueId + ": ") + line->said);
    EXPECT_TRUE(EndsWith(text, ": " + line->text));
    return seen;
  });
}

TEST(DovecotConfig, HasBlocks) {
  const Rows rows = {
      {"protocols = imap pop3\n", ":protocols=imap pop3; "},
      {"# a = b\n\n  c=d  \r\n", ":c=d; "},
      {"a = \"\\\\b#\"\nssl_key = # hidden, use -P to show it\nb = c # d", ":a=\\\\b#;b=c;ssl_key=; "},
      {"a = </x\nc = \"\"", ":a=</x;c=; "},
      {"passdb {\n  args = s=yes x\n  driver = pam\n}\na = b\n", ":a=b; passdb:args=s=yes x;driver=pam; "},
      {"passdb {\n}\npassdb {\na = b\n}", ": passdb: passdb:a=b; "},
      {"service imap-login {\n  inet_listener imaps {\n    port = 1\n  }\n  x = y\n}\n",
       ": service imap-login:x=y; service imap-login/inet_listener imaps:port=1; "},
      {"protocol !smtp{\na=b\n}", ": protocol !smtp:a=b; "},
      {"}\n!include_try conf.d/*.conf\na = b", ":a=b; "}};
  ExpectReads(rows, [](const std::string& text) {
    std::string seen;
    for (const DovecotBlock& one : ParseDovecot(text)) seen += one.name + ":" + Text(one.settings) + " ";
    return seen;
  });
}

// NAME:PORT, whether it has implicit TLS or STARTTLS, and its addresses.
TEST(DovecotConfig, HasListeners) {
  const std::string imap = "protocols = imap\nservice imap-login {\n inet_listener imap";
  const Rows rows = {
      {"protocols = imap pop3", "imap:143s imaps:993i pop3:110s pop3s:995i "},
      {"protocols = $protocols imap", "imap:143s imaps:993i "},
      {"protocols = imap\nssl = no", "imap:143 imaps:993i "},
      {imap + "s {\nport = 0\n}\n}", "imap:143s "},
      {imap + "s {\nport = 93\naddress = localhost, 1.2.3.4\n}\n}", "imap:143s imaps:93ilocalhost 1.2.3.4  "},
      {imap + "s {\nlisten = ::\n ssl = no\n}\n}", "imap:143s imaps:993s::  "},
      {imap + " {\nssl = yes\n}\n}", "imap:143i imaps:993i "},
      {"protocols = lmtp pop3\nservice pop3-login {\ninet_listener pop3 {\nport = 0\n}\n}", "pop3s:995i "},
      {"", ""}};
  ExpectReads(rows, [](const std::string& text) {
    std::string seen;
    for (const DovecotListener& one : DovecotListeners(ParseDovecot(text))) {
      if (one.port.empty()) continue;
      seen += one.name + ":" + one.port + (one.implicitTls ? "i" : "") + (one.startTls ? "s" : "") +
              Text(one.addresses) + " ";
    }
    return seen;
  });
}

TEST(DovecotConfig, NamesCertificatesSocketsAndPamServices) {
  const Rows rows = {
      {"ssl_cert = </a.crt\nssl_key = < /a.key", "/a.crt /a.key "},
      {"ssl_server_cert_file = /a\nssl_server_key_file = /b\n", "/a /b "},
      {"ssl_server {\n cert_file = /a\n key_file = /b\n}\n", "/a /b "},
      {"ssl_cert = </a\nssl_key = </b\nlocal_name x {\nssl_cert = </c\nssl_key = </d\n}", "/a /b /c /d "},
      {"ssl = no\nssl_cert = </a\nssl_key = </b", ""},
      {"ssl_cert = </a\nssl_ca = </b", ""},
      {"service auth {\nunix_listener /run/x/auth {\n}\nunix_listener login {\n}\n}", "/run/x/auth login "},
      {"passdb {\nargs = session=yes dovecot.local\ndriver = pam\n}", "dovecot.local "},
      {"passdb {\ndriver = pam\nargs = %s\n}\nuserdb {\nargs = x\ndriver = ldap\n}", ""},
      {"passdb pam {\npassdb_pam_service_name = smtp.local\n}", "smtp.local "},
      {"passdb {\ndriver = pam\n}", ""}};
  ExpectReads(rows, [](const std::string& text) {
    const DovecotConfig config = ParseDovecot(text);
    std::string seen;
    for (const auto& [certificate, key] : DovecotCertificates(config)) seen += certificate + " " + key + " ";
    return seen + Text(DovecotSockets(config)) + Text(PamServices(config));
  });
}
