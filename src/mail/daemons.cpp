#include "mail/daemons.h"

#include <algorithm>
#include <stdexcept>

#include "system/text.h"

namespace {

// clang-format off
const std::vector<Daemon>& Table() {
  static const std::string openDkim = kEtc + "/opendkim.conf";
  static const std::string openDmarc = kEtc + "/opendmarc.conf";
  static const std::string dovecot = kEtc + "/dovecot/dovecot.conf";
  static const std::vector<Daemon> table = {
      {DaemonId::kOpenDkim, "OpenDKIM", "brindlecot-opendkim", "/usr/sbin/opendkim", openDkim,
       {"opendkim", "-x", openDkim}, {"opendkim", "-n", "-x", openDkim},
       "8891", "opendkim", {kEtc + "/opendkim"}, {"smtp"}},
      {DaemonId::kOpenDmarc, "OpenDMARC", "brindlecot-opendmarc", "/usr/sbin/opendmarc", openDmarc,
       {"opendmarc", "-c", openDmarc}, {"opendmarc", "-n", "-c", openDmarc},
       "8893", "opendmarc", {kEtc + "/opendmarc"}, {"smtp"}},
      {DaemonId::kDovecot, "Dovecot", "brindlecot-dovecot", "/usr/sbin/dovecot", dovecot,
       {kSbin + "/dovecot"}, {kSbin + "/doveconf", "-n"}, "", "", {kEtc + "/dovecot/", kSsl}, {"dovecot"}},
      {DaemonId::kPostfix, "Postfix", "brindlecot-postfix", "/usr/lib/postfix/", kEtc,
       {"postfix", "-c", kEtc, "start"}, {"postfix", "-c", kEtc, "check"}, "", "postfix", {kEtc + "/", kSsl},
       {"smtp", "alias", "domain_alias", "sender_quota_map"}},
      {DaemonId::kMailScanner, "MailScanner", "", "", "", {},
       {"spamassassin", "--lint", "--siteconfigpath=" + kEtc + "/spamassassin"}, "", "",
       {kEtc + "/MailScanner/", kEtc + "/spamassassin/"}, {"mailscanner"}}};
  return table;
}
// clang-format on

}  // namespace

const Daemon& DaemonOf(DaemonId id) { return Table()[static_cast<size_t>(id)]; }

const Daemon& DaemonNamed(const std::string& name) {
  for (const Daemon& daemon : Table()) {
    if (daemon.name == name) return daemon;
  }
  throw std::out_of_range("no daemon is named " + name);
}

const std::vector<Daemon>& Daemons() {
  static const std::vector<Daemon> started(Table().begin(), Table().end() - 1);
  return started;
}

std::set<DaemonId> ReadersOf(const std::set<std::string>& paths) {
  std::set<DaemonId> readers;
  for (const std::string& path : paths) {
    size_t longest = 0;
    std::set<DaemonId> those;
    for (const Daemon& daemon : Table()) {
      for (const std::string& begin : daemon.files) {
        if (!StartsWith(path, begin) || begin.size() < longest) continue;
        if (begin.size() > longest) those.clear();
        longest = begin.size();
        those.insert(daemon.id);
      }
    }
    readers.merge(those);
  }
  return readers;
}

std::set<DaemonId> WrittenFor(const std::vector<std::string>& words) {
  std::set<DaemonId> daemons;
  for (const Daemon& daemon : Table()) {
    for (const std::string& word : words) {
      if (Contains(daemon.words, word)) daemons.insert(daemon.id);
    }
  }
  return daemons;
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
         (milters != mainCf.end() && HasPeer(milters->second, daemon.milterPort));
}
