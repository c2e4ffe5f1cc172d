#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apply/commands.h"
#include "change/change.h"
#include "change/daemons.h"
#include "mail/certificate.h"

namespace fs = std::filesystem;

int Renew(const Request& request) {
  const std::string& certificate = request.arguments[0];
  const std::string& key = request.arguments[1];
  for (const std::string& file : request.arguments) {
    if (access(file.c_str(), R_OK) != 0) throw Fault(file + ": " + std::strerror(errno));
  }
  for (const char* name : {"/server.crt", "/server.key"}) {
    if (!fs::is_symlink(kSsl + name)) continue;
    throw Fault(kSsl + name +
                " is a link, and would be replaced. Put a copy of the file in its place, or have the " +
                "daemons load what it leads to");
  }
  CheckPair(certificate, key);
  // A new certificate would take a daemon down whose files are being edited.
  const PendingChange change = Begin("nubo_config_apply renew", request.message, request.user, {});
  for (const DaemonId reader : ReadersOf({kSsl})) {
    if (change.running.count(reader) != 0) CheckFiles(DaemonOf(reader));
  }
  return RunChange(change, ChangeKind::kRenew, 0, [&] {
    const Step step("The certificate is put in place");
    RunOrThrow({"cp", "-aT", fs::canonical(kSsl), kNewSsl}, "cannot copy " + kSsl);
    const auto put = [&](const std::string& name, const std::string& source, int mode) {
      WriteFile(kNewSsl + name, ReadFile(source));
      fs::permissions(kNewSsl + name, fs::perms(mode));
    };
    put("/server.crt", certificate, 0644);
    put("/server.key", key, 0600);
    InstallSsl(kNewSsl);
    return "It has a new certificate.\n";
  });
}
