/// What a preview tells: for people as text, for scripts as JSON.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "preview/differences.h"
#include "preview/masks.h"
#include "preview/run.h"
#include "preview/verdict.h"

/// All that was found. The texts of runs, verdicts and warnings may hold secrets, which the report hides.
struct Preview {
  std::vector<Run> runs;
  std::vector<Difference> files;
  std::vector<Verdict> verdicts;
  std::vector<std::string> warnings;  ///< of the settings; they do not count
  Masks masks;

  /// 0 nothing would change, 1 something would, 2 a run failed or a verdict is "refused".
  int Status() const;
};

void PrintText(std::ostream& out, const Preview& preview);

/// One object, as nubo_config_preview(8) describes it.
void PrintJson(std::ostream& out, const Preview& preview);
