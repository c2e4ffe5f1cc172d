#include <json/json.h>

#include <iostream>
#include <regex>
#include <utility>

#include "apply/commands.h"
#include "change/basics.h"
#include "change/change.h"
#include "change/state.h"

namespace {

// The first line of a state's preview; "As found" alone, or as an earlier version has written it, without
// zone and user.
const std::regex kHeading("([-0-9]{10}) ([:0-9]{8})(?: ([-+][0-9]{4}))?  (?:(\\S+)  )?(.*)");

void PrintJson() {
  Json::Value all;
  all["states"] = Json::arrayValue;
  for (const int number : States()) {
    const std::string shown = ReadFile(StateDirectory(number) + "/preview");
    const std::string heading = shown.substr(0, shown.find('\n'));
    Json::Value state;
    state["state"] = number;
    std::smatch match;
    if (std::regex_match(heading, match, kHeading)) {
      state["time"] = match[1].str() + "T" + match[2].str() + match[3].str();
      state["user"] = match[4].str();
      state["change"] = match[5].str();
    } else {
      state["change"] = heading;
    }
    all["states"].append(state);
  }
  if (PendingChange::Exists()) {
    all["pending"]["change"] = PendingChange::Read().what;
    all["pending"]["user"] = PendingChange::Read().user;
  }
  std::cout << all.toStyledString() << std::flush;
}

}  // namespace

int History(const Request& request) {
  if (request.arguments == std::vector<std::string>{"--json"}) {
    PrintJson();
    return 0;
  }
  if (!request.arguments.empty()) {
    int first = std::stoi(request.arguments.front());
    int last = std::stoi(request.arguments.back());
    if (first > last) std::swap(first, last);
    // The change that made the first of two is not between them.
    for (int number = first == last ? first : first + 1; number <= last; ++number) {
      const std::string shown = ReadFile(StateDirectory(number) + "/preview");
      if (shown.empty()) throw Fault("there is no state " + std::to_string(number));
      std::cout << (first == last ? "" : "== " + std::to_string(number) + "  ") << shown;
    }
    return 0;
  }
  for (const int number : States()) {
    const std::string shown = ReadFile(StateDirectory(number) + "/preview");
    std::cout << number << "  " << shown.substr(0, shown.find('\n')) << std::endl;
  }
  if (PendingChange::Exists())
    std::cout << "pending: " << PendingChange::Read().user << "  " << PendingChange::Read().what << std::endl;
  return 0;
}
