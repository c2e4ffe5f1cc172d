/// The report of a preview: text for people, JSON for scripts.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "mail/versions.h"
#include "preview/differences.h"
#include "preview/masks.h"
#include "preview/verdict.h"

/// What `nubo_set_config WORD` does.
struct Run {
  std::string word;
  int status;                     ///< its exit status
  std::vector<std::string> said;  ///< what it prints, and with "log: " before it what it logs
  bool failed;  ///< by its status or its log lines, since "smtp" ends with 0 once the settings are read
};

/// All that was found. Runs, verdicts and warnings may hold secrets; the report hides them.
struct Preview {
  std::vector<Run> runs;
  std::vector<Difference> files;
  std::vector<Verdict> verdicts;
  std::vector<InstalledVersion> versions;
  std::vector<std::string> warnings;  ///< about versions and settings; they do not change the exit status
  Masks masks;

  /// True when a run failed.
  bool Failed() const;

  /// The exit status: 0 when nothing would change, 1 when something would, 2 when a run failed or a verdict
  /// is "refused".
  int Status() const;

  /// One sentence that says the same.
  std::string Conclusion() const;
};

/// The conclusion; what was refused and why; warnings; the differences; what is good. In colours for a
/// terminal.
void PrintText(std::ostream& stream, const Preview& preview, bool colour);

/// One object, as nubo_config_preview(8) describes it.
void PrintJson(std::ostream& out, const Preview& preview);
