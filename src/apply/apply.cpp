#include <iostream>

#include "apply/commands.h"
#include "apply/generate.h"
#include "change/change.h"
#include "core/commands.h"

int Apply(const Request& request) {
  const std::vector<std::string> words = request.arguments.empty() ? CommandWords() : request.arguments;
  const PendingChange change =
      Begin(words.size() == 1 ? "nubo_config_apply " + words[0] : "nubo_config_apply", request.message,
            request.user, WrittenFor(words));
  const std::string base = StateDirectory(change.base);
  const Preview preview = RunPreview(words);
  if (!preview.changes && HasFiles(base, FileKind::kInput) && Differing(FileKind::kOutput, base).empty() &&
      Differing(FileKind::kInput, base).empty()) {
    std::cout << "Nothing has changed since state " << change.base << std::endl;
    return 0;
  }
  return RunChange(change, ChangeKind::kApply, request.minutes, [&] {
    change.SaveTriedInputs();
    Generate(words, preview);
    return preview.report;
  });
}
