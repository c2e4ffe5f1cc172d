#include "apply/commands.h"

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string_view>

#include "apply/change.h"
#include "apply/state.h"
#include "core/commands.h"
#include "system/text.h"

namespace {

using std::chrono::seconds;
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
  return arguments == Arguments{"--json"} ||
         (arguments.size() < 3 && std::all_of(arguments.begin(), arguments.end(),
                                              [](const std::string& one) { return AnyNumber({one}); }));
}
bool AnyWord(const Arguments& arguments) {
  return arguments.empty() || (arguments.size() == 1 && Contains(CommandWords(), arguments[0]));
}

// How a command takes the lock of the states: not at all, or how long it waits while another one has it;
// kSettled waits for the end of a pending change, too.
enum class Lock { kNone, kAtOnce, kMinute, kSettled };

struct Command {
  std::string_view word;
  std::string_view shown;  // its arguments, in the usage
  bool (*valid)(const Arguments& arguments);
  bool timed;  // takes -t and -m
  Lock lock;
  int (*run)(const Request& request);
};

// The first one needs no word of its own.
constexpr Command kCommands[] = {
    {"", "[smtp|dovecot|mailscanner|alias|domain_alias|sender_quota_map]", AnyWord, true, Lock::kAtOnce,
     Apply},
    {"check", " [--json] [--no-message]", CheckOptions, false, Lock::kNone, Check},
    {"confirm", "", None, false, Lock::kAtOnce, Confirm},
    {"undo", " [STATE]", AnyNumber, true, Lock::kAtOnce, Undo},
    {"history", " [--json | STATE [STATE]]", HistoryArguments, false, Lock::kNone, History},
    {"recover", "", None, false, Lock::kMinute, Recover},
    // A certificate comes by a timer, which will not try again soon.
    {"renew", " CERTIFICATE KEY", Two, false, Lock::kSettled, Renew},
    {"restart", "", None, false, Lock::kNone, Restart},
    {"dns", " [check]", MayCheck, false, Lock::kNone, Dns},
    {"wait", "", None, false, Lock::kNone, Wait},  // run by -t, so not in the usage
};

void Take(Lock lock) {
  switch (lock) {
    case Lock::kNone:
      return;
    case Lock::kAtOnce:
      LockStates(seconds(0), false);
      break;
    case Lock::kMinute:
      LockStates(seconds(60), false);
      break;
    case Lock::kSettled:
      LockStates(seconds(3600), true);
      break;
  }
  OutliveSession();
}

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
  Take(command.lock);
  return command.run(request);
}
