/// The files of a state of the mail system, as apply keeps them: every confirmed state, and the way back from
/// a change that is not confirmed yet.
///
/// A kept tree is a directory with the folders `in` and `out`; a file stands in them under its absolute path.
/// Files keep mode, owner and time. A file that has not changed since the state before is a hard link. A tree
/// is written under another name, synced, and renamed. So a tree with its right name is complete.
#pragma once

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

/// Where the states are, for root alone (0700): they hold secrets.
constexpr const char* kStates = "/var/packages/Brindlecot/target/var/lib/apply";

/// Why a change cannot go on: a sentence for the administrator.
struct Fault : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Inputs, which the administrator writes, and what is generated from them. Templates belong to the package.
enum class Kind { kInput, kOutput };

/// Directory of a state.
std::string StateDirectory(int number);

/// The numbers of the confirmed states, ascending.
std::set<int> States();

/// Copies the live files of a kind into the tree, or links them to the copies in the tree `earlier` (empty:
/// none). Throws std::filesystem::filesystem_error or Fault.
void Keep(Kind kind, const std::string& tree, const std::string& earlier);

/// Gives a synced tree its name, in place of what has it. Throws as Keep does.
void Install(const std::string& tree, const std::string& name);

/// Whether the tree holds files of the kind; state 1, as found, may have no input.
bool Holds(const std::string& tree, Kind kind);

/// The paths of a kind where the live file and the tree's differ in bytes, mode or owner, or one is missing.
std::vector<std::string> Differing(Kind kind, const std::string& tree);

/// Puts the tree's files of a kind in place, each by a rename, and removes live files that the tree does not
/// have. Synced. Continues after a failure and returns "PATH: REASON" for each.
std::vector<std::string> PutBack(Kind kind, const std::string& tree);

/// Waits until these live files and their directories are on disk.
void Sync(const std::vector<std::string>& paths);

/// The whole text of a file; empty when it cannot be read.
std::string TextOf(const std::string& path);

/// Writes a file and waits until it is on disk.
void WriteText(const std::string& path, const std::string& text);
