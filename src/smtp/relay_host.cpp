#include <unistd.h>

#include "core/config_generator.h"
#include "core/guards.h"
#include "core/paths.h"

int ConfigGenerator::WriteRelayHost() {
  constexpr const char* kSaslPasswd = "/var/packages/Brindlecot/target/etc/sasl_passwd";

  const DelayedSignals delayedSignals;
  std::ofstream saslPasswd(kSaslPasswd);
  mainCf << "relayhost = " << GetString(smtp, "smtp_relay_server") << ":"
         << GetInt(smtp, "smtp_relay_server_port") << EndLine;
  if (GetBool(smtp, "smtp_relay_secure_conn")) {
    mainCf << "smtp_use_tls = yes" << EndLine;
    mainCf << "smtp_sasl_tls_security_options = noanonymous" << EndLine;
  }
  if (GetBool(smtp, "smtp_relay_auth_enabled")) {
    mainCf << "smtp_sasl_auth_enable = yes" << EndLine;
    mainCf << "smtp_sasl_password_maps = hash:/var/packages/Brindlecot/target/etc/sasl_passwd" << EndLine;
    mainCf << "smtp_sasl_security_options = noanonymous" << EndLine;
  }
  // Postfix looks up the value of relayhost, so the key must be exactly that.
  saslPasswd << GetString(smtp, "smtp_relay_server") << ":" << GetInt(smtp, "smtp_relay_server_port") << " "
             << GetString(smtp, "smtp_relay_account") << ":" << GetString(smtp, "smtp_relay_password")
             << EndLine;
  if (CloseOrRemove(saslPasswd, kSaslPasswd) < 0) return -1;  // the old map stays in use

  const int compiled = CompileMap(kPostmap, kSaslPasswd);
  (void)unlink(kSaslPasswd);  // now only the compiled map holds the password
  return compiled < 0 ? -1 : 0;
}
