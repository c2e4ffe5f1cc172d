#include <iostream>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"

int History(const Request& request) {
  if (!request.arguments.empty()) {
    const std::string shown = ReadFile(StateDirectory(std::stoi(request.arguments[0])) + "/preview");
    if (shown.empty()) throw Fault("there is no such state");
    std::cout << shown;
    return 0;
  }
  for (const int number : States()) {
    const std::string shown = ReadFile(StateDirectory(number) + "/preview");
    std::cout << number << "  " << shown.substr(0, shown.find('\n')) << std::endl;
  }
  if (IsPending()) std::cout << "pending: " << ReadPending().what << std::endl;
  return 0;
}
