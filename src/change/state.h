/// The files of a state of the mail system, as apply saves them.
///
/// A tree is a directory with the folders `in` and `out`; a file stands in them under its absolute path, with
/// its mode, owner and time. A tree is written under another name, synced, and renamed, so a tree with its
/// right name is complete.
///
/// Inputs that are links are followed: a tree has the file that they lead to. An output that is a link is
/// saved as a link. Files that a run of nubo_set_config is just writing are left out.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <set>
#include <string>

/// Where the states are, for root alone (0700): they hold secrets.
inline const std::string kStates = "/var/packages/Brindlecot/target/var/lib/apply";

/// The change that is under way, or waits to be confirmed (change.h).
inline const std::string kPending = kStates + "/pending";

/// Lock file, held while we run nubo_set_config.
inline const std::string kRunLock = kStates + "/run.lock";

/// Pass this as a tree to mean the installed files.
inline constexpr const char* kLive = "";

/// Inputs are what the administrator writes, outputs what is generated. Templates belong to the package.
enum class FileKind { kInput, kOutput };
using Paths = std::set<std::string>;

/// Makes the directory of the states if it is missing, and locks it until the program ends. Also waits for a
/// nubo_set_config that a killed change has left running, and removes trees that are not complete. With
/// `settled` it waits, too, until no change is pending. Throws Fault when it has to wait longer than
/// `patience`, with the process that has the lock, its command, and since when.
void LockStates(std::chrono::seconds patience, bool settled);

/// Directory of a state.
std::string StateDirectory(int number);

/// The numbers of the states, ascending.
std::set<int> States();

/// Whether the tree has a folder for the kind; state 1, as found, has no inputs. False for kLive.
bool HasFiles(const std::string& tree, FileKind kind);

/// The path of a file in a tree.
std::string PlaceOf(FileKind kind, const std::string& tree, const std::string& path);

/// The paths of the files of a kind in a tree. Throws Fault for an input that is a link to nothing.
Paths Files(FileKind kind, const std::string& tree);

/// True when both trees lack the file, or have it with the same bytes, mode and owner.
bool IsSame(FileKind kind, const std::string& path, const std::string& tree,
            const std::string& other = kLive);

/// The paths of a kind for which IsSame is false.
Paths Differing(FileKind kind, const std::string& tree, const std::string& other = kLive);

/// Saves the installed files of a kind in a tree. A file that is the same in the tree `earlier` becomes a
/// hard link to that one. Throws Fault or std::filesystem::filesystem_error.
void SaveFiles(FileKind kind, const std::string& tree, const std::string& earlier = kLive);

/// Makes each of these installed files what it is in the tree, by one rename, and removes those that the tree
/// does not have. Synced. From kPending, on one file system, this takes no room on the disk. Continues after
/// a failure, and throws Fault with all of them at its end.
void RestoreFiles(FileKind kind, const Paths& paths, const std::string& tree);

/// Puts the installed files of these paths also into a tree, without taking room on the disk where possible.
void SetAside(FileKind kind, const Paths& paths, const std::string& tree);

/// Removes temporary files and directories that nubo_set_config and its compiler of tables left behind when
/// they were killed after this file was written.
void RemoveLeftovers(const std::string& since);

/// Makes a file that takes so many bytes of the disk. Throws Fault.
void ReserveRoom(const std::string& path, off_t bytes);

/// Gives a directory its name by one rename, once all of it is on disk, and removes what had the name before.
void Install(const std::string& directory, const std::string& name);
