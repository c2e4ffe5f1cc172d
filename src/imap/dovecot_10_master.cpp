#include "core/config_generator.h"

int ConfigGenerator::GenerateDovecotConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.confXXXXXX";
  OpenEmpty(dovecotMasterConf, temp);

  std::string protocols = "imap";
  if (GetBool(imapPop3, "pop3_enabled") || GetBool(imapPop3, "pop3s_enabled")) {
    protocols += " pop3";
  }
  dovecotMasterConf << "protocols = $protocols " << protocols << EndLine;
  dovecotMasterConf << "service imap-login {" << EndLine;
  dovecotMasterConf << "    service_count = 0" << EndLine;
  dovecotMasterConf << "    process_limit = 256" << EndLine;
  dovecotMasterConf << "    inet_listener imap {" << EndLine;
  if (!GetBool(imapPop3, "imap_enabled")) {
    // Programs on the appliance itself always have IMAP. The other listeners are switched off by port 0.
    dovecotMasterConf << "        address = localhost" << EndLine;
  }
  dovecotMasterConf << "        port = 143" << EndLine;
  dovecotMasterConf << "    }" << EndLine;
  dovecotMasterConf << "    inet_listener imaps {" << EndLine;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "imaps_enabled") ? 993 : 0) << EndLine;
  dovecotMasterConf << "        ssl = yes" << EndLine;
  dovecotMasterConf << "    }" << EndLine;
  dovecotMasterConf << "}" << EndLine;
  dovecotMasterConf << "service pop3-login {" << EndLine;
  dovecotMasterConf << "    service_count = 0" << EndLine;
  dovecotMasterConf << "    process_limit = 256" << EndLine;
  dovecotMasterConf << "    inet_listener pop3 {" << EndLine;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "pop3_enabled") ? 110 : 0) << EndLine;
  dovecotMasterConf << "    }" << EndLine;
  dovecotMasterConf << "    inet_listener pop3s {" << EndLine;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "pop3s_enabled") ? 995 : 0) << EndLine;
  dovecotMasterConf << "        ssl = yes" << EndLine;
  dovecotMasterConf << "    }" << EndLine;
  dovecotMasterConf << "}" << EndLine;
  const int closed = CloseOrRemove(dovecotMasterConf, temp);

  (void)GenerateDovecotMailConfig();
  if (closed < 0) return -1;
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.conf");
}
