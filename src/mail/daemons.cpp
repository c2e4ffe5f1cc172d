#include "mail/daemons.h"

#include <algorithm>

#include "system/text.h"

// clang-format off
const std::vector<Daemon>& Daemons() {
  static const std::string openDkim = kEtc + "/opendkim.conf";
  static const std::string openDmarc = kEtc + "/opendmarc.conf";
  static const std::string dovecot = kEtc + "/dovecot/dovecot.conf";
  static const std::vector<Daemon> daemons = {
      {"OpenDKIM", "brindlecot-opendkim", "/usr/sbin/opendkim", openDkim,
       {"opendkim", "-x", openDkim}, {"opendkim", "-n", "-x", openDkim},
       "8891", "opendkim", {kEtc + "/opendkim"}},
      {"OpenDMARC", "brindlecot-opendmarc", "/usr/sbin/opendmarc", openDmarc,
       {"opendmarc", "-c", openDmarc}, {"opendmarc", "-n", "-c", openDmarc},
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

std::vector<std::string> StartOnIpv6(const Daemon& milter) {
  std::vector<std::string> command = milter.start;
  command.insert(command.end(), {"-p", "inet6:" + milter.milterPort + "@[::1]", "-P",
                                 "/run/brindlecot-milter-" + milter.milterPort + ".pid"});
  return command;
}

bool IsWanted(const Daemon& daemon, const Parameters& mainCf) {
  const auto milters = mainCf.find("smtpd_milters");
  return daemon.milterPort.empty() ||
         (milters != mainCf.end() && Contains(milters->second, ":" + daemon.milterPort));
}
