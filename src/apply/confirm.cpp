#include <filesystem>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/state.h"

int Confirm(const Request&) {
  const Change pending = ReadPending();
  if (!std::filesystem::exists(kPending + "/next"))
    throw Fault("the change was not finished; take it back by: nubo_config_apply recover");
  return Settle(pending);
}
