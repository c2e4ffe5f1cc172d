#include "preview/run.h"

#include <syslog.h>

#include <regex>
#include <sstream>

#include "main/commands.h"
#include "preview/program.h"
#include "preview/sandbox.h"

namespace {

constexpr const char* kProgram = "nubo_set_config";

int Generate(const std::string& word) {
  openlog(kProgram, 0, LOG_USER);
  const char* const arguments[] = {kProgram, word.c_str(), nullptr};
  return RunCommand(2, arguments);
}

}  // namespace

Run RunGenerators(const std::string& word) {
  TakeLogOf("");
  const Ended ended = Program([&] { return Generate(word); }).Wait();
  Run run = {word, ended.status, Lines(ended.output + ended.errors), ended.status != 0};
  for (const std::string& line : TakeLogOf(kProgram)) {
    run.said.push_back("log: " + line);
    run.failed = true;
  }
  return run;
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> TakeLogOf(const std::string& program) {
  const std::regex form(R"(<\d+>.{15} ([^ :\[]+)(?:\[\d+\])?: ([^]*))");  // syslog(3) of the C library
  std::vector<std::string> lines;
  for (const std::string& message : TakeLog()) {
    std::smatch match;
    if (std::regex_match(message, match, form) && (program.empty() || match[1] == program))
      lines.push_back(match[2]);
  }
  return lines;
}
