#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/generate.h"
#include "apply/state.h"
#include "core/commands.h"

int Undo(const Request& request) {
  int state = request.arguments.empty() ? 0 : std::stoi(request.arguments[0]);
  const std::set<int> states = States();
  if (state == 0 && states.size() > 1) state = *std::next(states.rbegin());
  if (states.count(state) == 0) throw Fault("there is no such state, see: nubo_config_apply history");
  const std::string tree = StateDirectory(state);
  const Change change = Begin("nubo_config_apply undo " + std::to_string(state), request);
  if (!Holds(tree, Kind::kInput)) {
    return BringAbout(change, Sort::kAsFound, request.minutes, [&] {
      const Step step("The files are put back");
      Mirror(Kind::kOutput, tree, kLive);
      return "The files of state " + std::to_string(state) + ".\n";
    });
  }
  return BringAbout(change, Sort::kUndo, request.minutes, [&] {
    Mirror(Kind::kInput, tree, kLive);
    ProgramResult preview;
    try {
      preview = Preview(CommandWords());
    } catch (const Refused&) {
      Mirror(Kind::kInput, kPending, kLive);
      throw;
    }
    Generate(CommandWords(), preview.output);
    return preview.output;
  });
}
