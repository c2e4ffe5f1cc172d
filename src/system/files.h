/// Files on disk.
#pragma once

#include <set>
#include <string>

/// The bytes of a file; none when it cannot be read.
std::string ReadFile(const std::string& path);

/// Writes a file and waits until it is on disk. Throws Fault (program.h).
void WriteFile(const std::string& path, const std::string& text);

/// Waits until these files and their directories, as far as they exist, are on disk. Throws Fault.
void Sync(const std::set<std::string>& paths);
