#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <utility>

#include "apply/change.h"
#include "apply/go_back.h"
#include "apply/report.h"
#include "apply/state.h"
#include "preview/program.h"

namespace {

namespace fs = std::filesystem;

const std::string kSsl = "/var/packages/Brindlecot/etc/ssl";
const std::string kOther = kSsl + ".new";  // beside it, so that the two can be exchanged

std::string OpenSsl(const std::vector<std::string>& arguments, const std::string& what) {
  std::vector<std::string> command = {"openssl"};
  command.insert(command.end(), arguments.begin(), arguments.end());
  const Ended ended = RunProgram(command);
  if (ended.status != 0) throw Fault(what + ": " + ended.output + ended.errors);
  return ended.output;
}

// One rename for the whole directory, so that no daemon and no power cut finds a certificate without its key.
void Exchange() {
  if (renameat2(AT_FDCWD, kOther.c_str(), AT_FDCWD, kSsl.c_str(), RENAME_EXCHANGE) != 0) {
    throw Fault("cannot exchange " + kSsl + ": " + std::strerror(errno));
  }
  Sync({kSsl});
}

// Makes the daemons load what is there now, and returns what is worse then.
std::vector<std::string> FollowCertificate(const std::vector<RunningDaemon>& running,
                                           const std::set<std::string>& unwell) {
  const Step step("The daemons follow, and mail is checked");
  try {
    for (const RunningDaemon& daemon : RunningDaemons()) {
      if (daemon.name == "Dovecot") StopDaemon(daemon);
    }
    for (const RunningDaemon& daemon : running) {
      if (daemon.name == "Dovecot") StartDaemon(daemon.name, daemon.unit);
      if (daemon.name == "Postfix")
        RunProgram({"postfix", "-c", "/var/packages/Brindlecot/target/etc", "reload"});
    }
  } catch (const Fault& fault) {
    return {fault.what()};
  }
  return Worse(AskMail(running, "The certificate of mail has changed", "It was renewed.\n"), unwell);
}

}  // namespace

int Renew(const std::string& certificate, const std::string& key) {
  OpenSsl({"x509", "-in", certificate, "-noout", "-checkend", "0"},
          certificate + " is no valid certificate, or has expired");
  // An empty password: one that is asked for could not be given by the daemons either.
  if (OpenSsl({"x509", "-in", certificate, "-noout", "-pubkey"}, certificate) !=
      OpenSsl({"pkey", "-in", key, "-passin", "pass:", "-pubout"},
              key + " is no private key without a password")) {
    throw Fault(key + " is not the key of " + certificate);
  }

  std::set<std::string> unwell;
  const std::vector<RunningDaemon> running = RunningDaemons();
  for (const MailObservation& one :
       AskMail(running, "Mail before a new certificate", "The certificate is about to be renewed.\n")) {
    if (!one.good) unwell.insert(one.what);
  }

  const mode_t mask = umask(077);
  fs::remove_all(kOther);
  if (RunProgram({"cp", "-a", kSsl, kOther}).status != 0) throw Fault("cannot copy " + kSsl);
  for (const auto& [name, source] :
       {std::pair(kOther + "/server.key", key), {kOther + "/server.crt", certificate}}) {
    fs::remove(name);  // may be a link
    WriteText(name, TextOf(source));
  }
  fs::permissions(kOther + "/server.crt", fs::perms(0644));
  umask(mask);
  Exchange();

  std::vector<std::string> worse = FollowCertificate(running, unwell);
  if (worse.empty()) {
    fs::remove_all(kOther);
    std::cout << "In force." << std::endl;
    return 0;
  }
  std::cout << "Taken back: " << Join(worse, "; ") << std::endl;
  Exchange();
  worse = FollowCertificate(running, unwell);
  fs::remove_all(kOther);
  std::cout << (worse.empty() ? "All is as before." : "Not as before: " + Join(worse, "; ")) << std::endl;
  return worse.empty() ? 3 : 4;
}
