/// A private copy of the machine, in which the generators and the daemons run at their real paths and change
/// nothing: mounts, processes and system log (log.h) of its own, every file system read-only, and in memory
/// what is written to: a copy of the generated files, the directories of queue and log without what is in
/// them, /tmp, /run, /dev and the users' homes. It guards against accidents, not against a malicious root.
///
/// Everything in it ends with the process that made it, however that ends: the kernel then kills process 1 of
/// the sandbox, and with it all others; the mounts go with the last one.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mail/paths.h"
#include "system/program.h"

inline constexpr const char* kWork = "/tmp/preview";             ///< for root alone
inline const std::string kMachineRoot = "/tmp/preview/machine";  ///< the machine's files, not covered
inline constexpr const char* kInstalled = "/tmp/preview/old";    ///< the generated files as they were
inline constexpr const char* kToldPamConfig =
    "/tmp/preview/pam-config";  ///< what the package helper was told
inline constexpr const char* kKeptPamConfig =
    "/usr/nubo/etc/pam-config/Brindlecot.json";  ///< what it has stored

/// Starts `work` in a new sandbox, with a new environment. What it prints, also why there can be no sandbox,
/// is kept. Throws std::runtime_error. To be called by a process of one thread.
std::unique_ptr<Program> InSandbox(const std::function<int()>& work);

// For `work`:

inline constexpr int kDeepest = 5;  ///< a queue below target/var needs so many directories in another

/// Covers the directory, in memory, with one of the same owner and mode, in which there are the directories
/// that are in it, so deep, and no files. Of what was in it, the paths in `kept` stay. Nothing happens where
/// there is no such directory.
void Cover(const std::string& directory, int depth, const std::vector<std::string>& kept = {});

/// Covers a file that daemons write to with an empty one; where it does not exist yet, its directory.
void CoverFile(const std::string& path);

/// Makes at a path below a covered directory what stands there on the machine: a directory with the
/// directories in it, or an empty file, of the same owner and mode. Nothing happens where nothing stands
/// there.
void CopyShape(const std::string& path);

/// Makes a socket of the machine reachable at its path below a covered directory.
void ShowSocket(const std::string& path);

/// Puts a file of this text, with the mode of the old one, in the place of a file, if there is one.
void ReplaceByText(const std::string& path, const std::string& text);
