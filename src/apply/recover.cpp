#include <filesystem>
#include <iostream>

#include "apply/commands.h"
#include "change/change.h"

int Recover(const Request&) {
  if (!IsPending()) {
    std::cout << "No change is pending." << std::endl;
    return 0;
  }
  const Change pending = ReadPending();
  if (States().count(pending.base + 1) == 0) {
    return RollBack(pending, std::filesystem::exists(kGood) ? "it was not confirmed" : "it was not finished");
  }
  EndPending();  // it was killed before it could say so
  std::cout << "The change was confirmed." << std::endl;
  return 0;
}
