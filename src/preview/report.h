/// The report of a preview: text for people, JSON for scripts.
#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "checks/check_result.h"
#include "mail/versions.h"
#include "preview/differences.h"

/// What `nubo_set_config WORD` does.
struct Run {
  std::string word;
  int status;                     ///< its exit status
  std::vector<std::string> said;  ///< what it prints, and with "log: " before it what it logs
  bool failed;  ///< by its status or its log lines, since "smtp" ends with 0 once the settings are read
};

/// All that was found.
struct Preview {
  std::vector<Run> runs;
  std::vector<Difference> files;
  CheckResults results;  ///< bad ones are refused
  std::vector<InstalledVersion> versions;
  std::vector<std::string> warnings;  ///< about versions and settings; they do not change the exit status

  /// True when a run failed.
  bool Failed() const;

  /// The exit status: 0 when nothing would change, 1 when something would, 2 when a run failed or a result is
  /// bad.
  int Status() const;

  /// One sentence that says the same.
  std::string Conclusion() const;
};

/// Makes the words those that a reader needs: with the paths of the machine, not of the sandbox, without
/// secrets, and without lines that give no reason. Of good results there stay the warnings, each once, but
/// not those about lines that nubo_set_config always writes.
void TidyWords(Preview& preview, const Masks& masks);

/// True when a line of a program says more than its name.
bool GivesReason(const std::string& line);

/// The conclusion; what was refused and why; warnings; the differences; what is good. In colours for a
/// terminal.
void PrintText(std::ostream& stream, const Preview& preview, bool colour);

/// One object, as nubo_config_preview(8) describes it, without the text.
Json::Value ToJson(const Preview& preview);

/// The preview that ToJson has written, without the versions. Throws Fault or Json::Exception for anything
/// else.
Preview PreviewFromJson(const Json::Value& all);
