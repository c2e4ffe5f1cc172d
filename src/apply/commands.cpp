#include "apply/commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string_view>

#include "change/change.h"
#include "change/state.h"
#include "core/commands.h"
#include "system/text.h"

namespace {

using Arguments = std::vector<std::string>;

bool None(const Arguments& arguments) { return arguments.empty(); }
bool Two(const Arguments& arguments) { return arguments.size() == 2; }
bool CheckOptions(const Arguments& arguments) {
  return std::all_of(arguments.begin(), arguments.end(), [](const std::string& argument) {
    return argument == "--json" || argument == "--no-message";
  });
}
bool MayCheck(const Arguments& arguments) { return arguments.empty() || arguments == Arguments{"check"}; }
bool AnyNumber(const Arguments& arguments) {
  const std::string number = arguments.empty() ? "1" : arguments[0];
  return arguments.size() < 2 && !number.empty() && number.size() < 5 && number[0] != '0' &&
         number.find_first_not_of("0123456789") == std::string::npos;
}
bool HistoryArguments(const Arguments& arguments) {
  return arguments == Arguments{"--json"} || AnyNumber(arguments);
}
bool AnyWord(const Arguments& arguments) {
  return arguments.empty() || (arguments.size() == 1 && Contains(CommandWords(), arguments[0]));
}

// How many seconds a command waits for the lock of the states. A certificate comes by a timer, which will not
// try again soon; it waits for the end of a pending change, too.
constexpr int kNoLock = -1;
constexpr int kUntilSettled = 3600;

struct Command {
  std::string_view word;
  std::string_view shown;  // its arguments, in the usage
  bool (*valid)(const Arguments& arguments);
  bool timed;  // takes -t and -m
  int patience;
  int (*run)(const Request& request);
};

// The first one needs no word of its own.
constexpr Command kCommands[] = {
    {"", "[smtp|dovecot|mailscanner|alias|domain_alias|sender_quota_map]", AnyWord, true, 0, Apply},
    {"check", " [--json] [--no-message]", CheckOptions, false, kNoLock, Check},
    {"confirm", "", None, false, 0, Confirm},
    {"undo", " [STATE]", AnyNumber, true, 0, Undo},
    {"history", " [--json | STATE]", HistoryArguments, false, kNoLock, History},
    {"recover", "", None, false, 60, Recover},
    {"renew", " CERTIFICATE KEY", Two, false, kUntilSettled, Renew},
    {"restart", "", None, false, kNoLock, Restart},
    {"dns", " [check]", MayCheck, false, kNoLock, Dns},
    {"wait", "", None, false, kNoLock, Wait},  // run by -t, so not in the usage
};

}  // namespace

int Usage(bool asked) {
  std::ostream& out = asked ? std::cout : std::cerr;
  const char* begin = "Usage: ";
  for (const Command& command : kCommands) {
    if (command.run == Wait) continue;
    out << begin << "nubo_config_apply " << (command.timed ? "[-t MINUTES] [-m TEXT] " : "") << command.word
        << command.shown << '\n';
    begin = "       ";
  }
  out << std::flush;
  return asked ? 0 : 2;
}

int RunCommandLine(const std::vector<std::string>& words, Request request) {
  const auto named = std::find_if(kCommands + 1, std::end(kCommands), [&](const Command& command) {
    return !words.empty() && words[0] == command.word;
  });
  const bool other = named == std::end(kCommands);
  const Command& command = other ? kCommands[0] : *named;
  request.arguments = {words.begin() + (other ? 0 : 1), words.end()};
  const bool options = request.minutes > 0 || !request.message.empty();
  if (!command.valid(request.arguments) || (options && !command.timed)) return Usage();
  if (command.patience != kNoLock) {
    LockStates(std::chrono::seconds(command.patience), command.patience == kUntilSettled);
    IgnoreHangup();
  }
  return command.run(request);
}
