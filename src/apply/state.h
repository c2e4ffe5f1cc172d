/// The files of a state of the mail system, as apply keeps them: every confirmed state, and the way back from
/// a change that is not confirmed yet.
///
/// A kept tree is a directory with the folders `in` and `out`; a file stands in them under its absolute path.
/// Files keep mode, owner and time. A file that has not changed since the state before is a hard link. A tree
/// is written under another name, synced, and renamed. So a tree with its right name is complete.
#pragma once

#include <chrono>
#include <set>
#include <string>

/// Where the states are, for root alone (0700): they hold secrets.
inline const std::string kStates = "/var/packages/Brindlecot/target/var/lib/apply";

/// The change that is under way, or waits to be confirmed (change.h).
inline const std::string kPending = kStates + "/pending";

/// The file that every nubo_set_config of ours holds locked while it runs, by flock(1).
inline const std::string kRunLock = kStates + "/run.lock";

/// The place of a tree for the files that are in use.
inline const std::string kLive;

/// Inputs, which the administrator writes, and what is generated from them. Templates belong to the package.
enum class Kind { kInput, kOutput };
using Paths = std::set<std::string>;

/// Makes the directory of the states if it is missing, and locks it until the program ends. Also waits for a
/// nubo_set_config that a killed change has left running, and removes what that change has not finished.
/// With `settled` it waits, too, until no change is pending. Throws Fault when it has to wait longer than
/// `patience`.
void LockStates(std::chrono::seconds patience, bool settled);

/// Directory of a state.
std::string StateDirectory(int number);

/// The numbers of the confirmed states, ascending.
std::set<int> States();

/// Whether the tree holds files of the kind; state 1, as found, has no input. False for kLive.
bool Holds(const std::string& tree, Kind kind);

/// The paths of a kind where the files in the two trees differ in bytes, mode or owner, or one is missing.
Paths Differing(Kind kind, const std::string& tree, const std::string& other = kLive);

/// Makes the files of a kind in the tree `to` what they are in `from`, each by a rename, and removes those
/// that `from` does not have. Synced. Continues after a failure, and throws Fault with all of them at its
/// end.
void Mirror(Kind kind, const std::string& from, const std::string& to);

/// Makes a directory with links to all files of another one. Throws std::filesystem::filesystem_error.
void LinkTree(const std::string& from, const std::string& to);

/// Puts the live files of a kind into a new tree, with links to those in the tree `earlier` (kLive: none)
/// that are the same. Throws std::filesystem::filesystem_error or Fault.
void Keep(Kind kind, const std::string& tree, const std::string& earlier);

/// Gives a directory its name by one rename, once all of it is on disk, and removes what had the name before.
/// Throws as Keep does.
void Install(const std::string& directory, const std::string& name);
