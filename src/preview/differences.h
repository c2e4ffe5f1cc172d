/// The differences that a run makes in the generated files.
#pragma once

#include <string>
#include <vector>

#include "preview/masks.h"

/// A file that is changed, new or gone.
struct Difference {
  std::string path;
  std::string before;  ///< mode and owner, such as "644 root:root"; empty for a new file
  std::string after;   ///< the same afterwards; empty for a file that is gone
  std::string diff;    ///< as diff -u prints it, without secrets; empty when only mode or owner changed
  bool secret;         ///< only a secret changed in the text
};

/// Compares the generated files in the sandbox with the installed ones, and what the package helper was told
/// with what it has stored. Compiled tables are compared by their entries. The result is in the order of the
/// paths. `masks` learns all secrets in both.
std::vector<Difference> FindDifferences(Masks& masks);
