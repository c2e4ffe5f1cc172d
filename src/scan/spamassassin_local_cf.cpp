#include "core/config_generator.h"

int ConfigGenerator::GenerateSpamAssassinConfig() {
  char temp[] = "/var/packages/Brindlecot/target/etc/spamassassin/local.cfXXXXXX";
  std::ofstream localCf;
  OpenFromTemplate(localCf, temp, "/var/packages/Brindlecot/target/etc/template/spamassassin.template");
  if (GetBool(scanner, "spam_auto_learn")) {
    localCf << "use_bayes 1" << EndLine;
    localCf << "bayes_auto_learn 1" << EndLine;
    localCf << "bayes_auto_learn_threshold_spam " << GetInt(scanner, "spam_learn_threshold_spam") << EndLine;
    localCf << "bayes_auto_learn_threshold_nonspam " << GetInt(scanner, "spam_learn_threshold_non_spam")
            << EndLine;
  } else {
    localCf << "use_bayes 0" << EndLine;
    localCf << "bayes_auto_learn 0" << EndLine;
  }
  localCf << "use_auto_whitelist " << (GetBool(scanner, "spam_auto_whitelist") ? "1" : "0") << EndLine;
  if (CloseOrRemove(localCf, temp) < 0) return -1;
  return InstallFile(temp, "/var/packages/Brindlecot/target/etc/spamassassin/local.cf");
}
