#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"

int Renew(const Request& request) {
  const std::string& certificate = request.arguments[0];
  const std::string& key = request.arguments[1];
  for (const std::string& file : request.arguments) {
    if (access(file.c_str(), R_OK) != 0) throw Fault(file + ": " + std::strerror(errno));
  }
  RunOrThrow({"openssl", "x509", "-in", certificate, "-noout", "-checkend", "0"},
             certificate + " is no valid certificate, or has expired");
  // An empty password: one that is asked for could not be given by the daemons either.
  if (RunOrThrow({"openssl", "x509", "-in", certificate, "-noout", "-pubkey"}, certificate) !=
      RunOrThrow({"openssl", "pkey", "-in", key, "-passin", "pass:", "-pubout"},
                 key + " is no private key without a password")) {
    throw Fault(key + " is not the key of " + certificate);
  }
  return BringAbout(Begin("nubo_config_apply renew", request), Sort::kRenew, 0, [&] {
    const Step step("The certificate is put in place");
    const std::string fresh = kPending + "/ssl.new";
    RunOrThrow({"cp", "-aT", kSsl, fresh}, "cannot copy " + kSsl);
    const auto put = [&](const std::string& name, const std::string& source, int mode) {
      std::filesystem::remove(fresh + name);  // may be a link
      WriteFile(fresh + name, ReadFile(source));
      std::filesystem::permissions(fresh + name, std::filesystem::perms(mode));
    };
    put("/server.crt", certificate, 0644);
    put("/server.key", key, 0600);
    InstallSsl(fresh);
    return "It has a new certificate.\n";
  });
}
