#include "preview/run.h"

#include <syslog.h>

#include "core/commands.h"
#include "preview/log.h"
#include "system/program.h"
#include "system/text.h"

Run RunGenerators(const std::string& word) {
  constexpr const char* kProgram = "nubo_set_config";
  TakeLog();
  const ProgramResult ended = Program([&] {
                                openlog(kProgram, 0, LOG_USER);
                                const char* const arguments[] = {kProgram, word.c_str(), nullptr};
                                return RunCommand(2, arguments);
                              }).Wait();
  Run run = {word, ended.status, Lines(ended.output + ended.errors), ended.status != 0};
  for (const std::string& line : SaidBy(kProgram, TakeLog())) {
    run.said.push_back("log: " + line);
    run.failed = true;
  }
  return run;
}
