/// A trial of files, in the sandbox: what the daemons' own checkers say of them, and the rehearsal. It is the
/// same for the installed files and for new ones.
#pragma once

#include <string>
#include <vector>

#include "preview/network.h"
#include "preview/report.h"

/// What is tried.
struct Trial {
  std::vector<std::string> words;  ///< of nubo_set_config
  bool rehearsal;                  ///< the daemons are started
  std::vector<Endpoint> occupied;  ///< OccupiedEndpoints
};

/// Tries the files that the words write: with `generate` those that the settings would make, and else the
/// installed ones. When a word fails, nobody is asked, since the files are not those of the settings.
Preview Try(const Trial& trial, bool generate);

/// Turns into warnings the bad results that were so before the change of these words. `before` are the
/// results of the installed files. The daemons that run are asked too, outside the sandbox, what they can be
/// asked without a message: files that have been spoilt since they were loaded are no excuse.
void ExcuseOldFaults(Preview& preview, CheckResults before, const std::vector<std::string>& words);
