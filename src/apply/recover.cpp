#include <iostream>

#include "apply/commands.h"
#include "change/change.h"

int Recover(const Request&) {
  if (!PendingChange::Exists()) {
    std::cout << "No change is pending." << std::endl;
    return 0;
  }
  const PendingChange pending = PendingChange::Read();
  if (States().count(pending.base + 1) == 0) {
    return RollBack(pending, PendingChange::IsGood() ? "it was not confirmed" : "it was not finished");
  }
  PendingChange::End();  // it was killed before it could say so
  std::cout << "The change was confirmed." << std::endl;
  return 0;
}
