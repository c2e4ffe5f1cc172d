#include "apply/commands.h"
#include "apply/generate.h"
#include "change/change.h"
#include "core/commands.h"

int Undo(const Request& request) {
  int state = request.arguments.empty() ? 0 : std::stoi(request.arguments[0]);
  const std::set<int> states = States();
  if (state == 0 && states.size() > 1) state = *std::next(states.rbegin());
  if (states.count(state) == 0) throw Fault("there is no such state, see: nubo_config_apply history");
  const std::string tree = StateDirectory(state);
  const std::vector<std::string> words = CommandWords();
  PendingChange change = Begin("nubo_config_apply undo " + std::to_string(state), request.message,
                               request.user, WrittenFor(words));
  if (!HasFiles(tree, FileKind::kInput)) {
    return RunChange(change, ChangeKind::kAsFound, request.minutes, [&] {
      const Step step("The files are put back");
      Paths paths = Files(FileKind::kOutput, tree);
      paths.merge(Files(FileKind::kOutput, StateDirectory(change.base)));
      PendingChange::SavePlan(paths);
      RestoreFiles(FileKind::kOutput, paths, tree);
      return "The files of state " + std::to_string(state) + ".\n";
    });
  }
  change.source = state;
  return RunChange(change, ChangeKind::kUndo, request.minutes, [&] {
    ReplaceInputs(change);
    change.SaveTriedInputs();
    const Preview preview = RunPreview(words);
    Generate(words, preview);
    return preview.report;
  });
}
