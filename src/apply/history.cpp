#include <json/json.h>

#include <iostream>
#include <sstream>

#include "apply/commands.h"
#include "change/change.h"

namespace {

std::string ReportOf(int state) { return ReadFile(StateDirectory(state) + "/preview"); }

// "As found" for state 1.
std::string HeadingOf(int state) {
  const std::string report = ReportOf(state);
  return report.substr(0, report.find('\n'));
}

void PrintJson() {
  Json::Value all;
  all["states"] = Json::arrayValue;
  for (const int number : States()) {
    Json::Value state;
    std::istringstream about(ReadFile(StateDirectory(number) + "/about"));
    if (about.peek() == EOF || !(about >> state)) state["change"] = HeadingOf(number);
    state["state"] = number;
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
  const std::string word = request.arguments.empty() ? "" : request.arguments[0];
  if (word == "--json") {
    PrintJson();
  } else if (!word.empty()) {
    const std::string report = ReportOf(std::stoi(word));
    if (report.empty()) throw Fault("there is no state " + word);
    std::cout << report;
  } else {
    for (const int number : States()) std::cout << number << "  " << HeadingOf(number) << std::endl;
    if (!PendingChange::Exists()) return 0;
    std::cout << "pending: " << PendingChange::Read().user << "  " << PendingChange::Read().what << std::endl;
  }
  return 0;
}
