#include "core/commands.h"

#include <syslog.h>

#include <exception>
#include <iostream>
#include <string_view>

#include "core/config_generator.h"

namespace {

struct Command {
  std::string_view word;
  int (*run)(ConfigGenerator& generator);
};

constexpr Command kCommands[] = {
    {"smtp",
     [](ConfigGenerator& generator) {
       (void)generator.GenerateMainCf();
       (void)generator.GenerateMasterCf();
       return 0;
     }},
    {"dovecot", [](ConfigGenerator& generator) { return generator.GenerateDovecotConfig(); }},
    {"mailscanner", [](ConfigGenerator& generator) { return generator.GenerateMailScannerConfig(); }},
    {"alias", [](ConfigGenerator&) { return ConfigGenerator::GenerateAliases(); }},
    {"domain_alias", [](ConfigGenerator& generator) { return generator.GenerateDomainAliases(); }},
    {"sender_quota_map", [](ConfigGenerator&) { return SenderQuota::GenerateConfig(); }},
};

int PrintUsage() {
  std::cout << "nubo_set_config {smtp|dovecot|mailscanner|alias|domain_alias|sender_quota_map}" << std::endl;
  return -1;
}

int Run(int argc, const char* const argv[]) {
  ConfigGenerator generator;
  if (argc != 2) return PrintUsage();
  if (generator.LoadAllSettings() < 0) return -1;
  for (const Command& command : kCommands) {
    if (argv[1] == command.word) return command.run(generator);
  }
  return PrintUsage();
}

}  // namespace

std::vector<std::string> CommandWords() {
  std::vector<std::string> words;
  for (const Command& command : kCommands) words.emplace_back(command.word);
  return words;
}

int RunCommand(int argc, const char* const argv[]) {
  try {
    return Run(argc, argv);
  } catch (const boost::bad_any_cast&) {
    return -1;  // already logged, with the key
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "%s:%d run ended: %s", kLogSource, 57, error.what());
    return -1;
  }
}
