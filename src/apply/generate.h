/// Runs the preview and nubo_set_config for a change.
#pragma once

#include <string>
#include <vector>

#include "change/change.h"

/// What nubo_config_preview says.
struct Preview {
  bool changes = false;  ///< something would change
  std::string report;    ///< for people
  Paths files;           ///< that would change
};

/// Runs the preview, with its rehearsal. Throws Fault, and prints the report, when the settings are refused.
Preview RunPreview(const std::vector<std::string>& words);

/// Runs nubo_set_config for the pending change, after PendingChange::SaveTriedInputs. Throws Fault when a run
/// fails, when somebody changes the settings meanwhile, or when a file that the preview listed did not
/// change. (The exit status of "nubo_set_config smtp" does not tell.)
void Generate(const std::vector<std::string>& words, const Preview& preview);
