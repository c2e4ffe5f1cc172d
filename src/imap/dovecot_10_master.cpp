#include <tuple>

#include "core/config_generator.h"

int ConfigGenerator::GenerateDovecotConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.confXXXXXX";
  OpenEmpty(dovecotMasterConf, temp);

  std::string protocols = "imap";
  if (GetBool(imapPop3, "pop3_enabled") || GetBool(imapPop3, "pop3s_enabled")) {
    protocols += " pop3";
  }
  dovecotMasterConf << "protocols = $protocols " << protocols << std::endl;
  dovecotMasterConf << "service imap-login {" << std::endl;
  dovecotMasterConf << "    service_count = 0" << std::endl;
  dovecotMasterConf << "    process_limit = 256" << std::endl;
  dovecotMasterConf << "    inet_listener imap {" << std::endl;
  if (!GetBool(imapPop3, "imap_enabled")) {
    // IMAP is never off on the appliance itself. The other listeners are switched off by port 0.
    dovecotMasterConf << "        address = localhost" << std::endl;
  }
  dovecotMasterConf << "        port = 143" << std::endl;
  dovecotMasterConf << "    }" << std::endl;
  dovecotMasterConf << "    inet_listener imaps {" << std::endl;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "imaps_enabled") ? 993 : 0) << std::endl;
  dovecotMasterConf << "        ssl = yes" << std::endl;
  dovecotMasterConf << "    }" << std::endl;
  dovecotMasterConf << "}" << std::endl;
  dovecotMasterConf << "service pop3-login {" << std::endl;
  dovecotMasterConf << "    service_count = 0" << std::endl;
  dovecotMasterConf << "    process_limit = 256" << std::endl;
  dovecotMasterConf << "    inet_listener pop3 {" << std::endl;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "pop3_enabled") ? 110 : 0) << std::endl;
  dovecotMasterConf << "    }" << std::endl;
  dovecotMasterConf << "    inet_listener pop3s {" << std::endl;
  dovecotMasterConf << "        port = " << (GetBool(imapPop3, "pop3s_enabled") ? 995 : 0) << std::endl;
  dovecotMasterConf << "        ssl = yes" << std::endl;
  dovecotMasterConf << "    }" << std::endl;
  dovecotMasterConf << "}" << std::endl;
  CloseStream(dovecotMasterConf);

  std::ignore = GenerateDovecotMailConfig();
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/dovecot/conf.d/10-master.conf");
}
