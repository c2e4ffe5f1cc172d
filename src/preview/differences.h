/// What a run has changed in the generated files.
#pragma once

#include <string>
#include <vector>

#include "preview/masks.h"

/// A file that was changed, or is new, or is gone.
struct Difference {
  std::string path;
  std::string before;  ///< mode and owner, as "644 root:root"; empty for a new file
  std::string after;   ///< likewise; empty for a file that is gone
  std::string diff;    ///< as diff -u prints it, without secrets; empty where only mode or owner changed
  bool secret;         ///< the text changed in nothing but a secret
};

/// Compares the sandbox's generated files, compiled tables as the entries that they hold, with the installed
/// ones, and what the package helper was told with what it keeps. In the order of the paths. All secrets that
/// both hold are learned by `masks`.
std::vector<Difference> FindDifferences(Masks& masks);
