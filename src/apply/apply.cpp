#include <iostream>

#include "apply/basics.h"
#include "apply/change.h"
#include "apply/commands.h"
#include "apply/generate.h"
#include "apply/state.h"
#include "core/commands.h"

int Apply(const Request& request) {
  const std::vector<std::string> words = request.arguments.empty() ? CommandWords() : request.arguments;
  const Change change =
      Begin(words.size() == 1 ? "nubo_config_apply " + words[0] : "nubo_config_apply", request);
  const std::string base = StateDirectory(change.base);
  const ProgramResult preview = Preview(words);
  if (preview.status == 0 && Holds(base, Kind::kInput) && Differing(Kind::kOutput, base).empty() &&
      Differing(Kind::kInput, base).empty()) {
    std::cout << "Nothing has changed since state " << change.base << std::endl;
    return 0;
  }
  return BringAbout(change, Sort::kApply, request.minutes, [&] {
    Generate(words, preview.output);
    return preview.output;
  });
}
