#include "mail_check/daemons.h"

#include <algorithm>

#include "system/text.h"

namespace {

// Postfix looks for a milter at "localhost", and there asks [::1] first. Where the milter listened on
// 127.0.0.1 alone, any user could answer in its place, so a second one listens there; in vain where there is
// no IPv6. (Under systemd, a socket unit holds the place.)
std::vector<std::string> StartMilter(const std::string& command, const std::string& port) {
  return {"sh", "-c",
          command + " -p 'inet6:" + port + "@[::1]' -P /run/brindlecot-milter-" + port +
              ".pid >/dev/null 2>&1; exec " + command};
}

}  // namespace

// clang-format off
const std::vector<Daemon>& Daemons() {
  static const std::string openDkim = kEtc + "/opendkim.conf";
  static const std::string openDmarc = kEtc + "/opendmarc.conf";
  static const std::string dovecot = kEtc + "/dovecot/dovecot.conf";
  static const std::vector<Daemon> daemons = {
      {"OpenDKIM", "brindlecot-opendkim", "/usr/sbin/opendkim", openDkim,
       StartMilter("opendkim -x " + openDkim, "8891"), {"opendkim", "-n", "-x", openDkim},
       "8891", "opendkim", {kEtc + "/opendkim"}},
      {"OpenDMARC", "brindlecot-opendmarc", "/usr/sbin/opendmarc", openDmarc,
       StartMilter("opendmarc -c " + openDmarc, "8893"), {"opendmarc", "-n", "-c", openDmarc},
       "8893", "opendmarc", {kEtc + "/opendmarc"}},
      {"Dovecot", "brindlecot-dovecot", "/usr/sbin/dovecot", dovecot,
       {kSbin + "/dovecot"}, {kSbin + "/doveconf", "-n"}, "", "", {kEtc + "/dovecot/", kSsl}},
      {"Postfix", "brindlecot-postfix", "/usr/lib/postfix/", kEtc,
       {"postfix", "-c", kEtc, "start"}, {"postfix", "-c", kEtc, "check"}, "", "postfix", {kEtc + "/", kSsl}}};
  return daemons;
}
// clang-format on

const Daemon& DaemonNamed(const std::string& name) {
  return *std::find_if(Daemons().begin(), Daemons().end(),
                       [&](const Daemon& daemon) { return daemon.name == name; });
}

bool IsWanted(const Daemon& daemon, const Parameters& mainCf) {
  const auto milters = mainCf.find("smtpd_milters");
  return daemon.milterPort.empty() ||
         (milters != mainCf.end() && Contains(milters->second, ":" + daemon.milterPort));
}
