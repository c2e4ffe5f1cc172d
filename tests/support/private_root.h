/// A private root for tests: the program's paths are absolute, and tested as they are.
#pragma once

#include <string>

/// Moves this process into a mount namespace of its own in which /var, /usr, /etc and /tmp can be
/// changed and nothing outlives the process. Needs root, or user namespaces. Exits with a message when
/// neither is allowed. To be called before the first thread and the first test.
void EnterPrivateRoot();

/// Empties what the program reads and writes: /var/packages, /usr/nubo and /tmp.
void ResetPrivateRoot();

/// Writes a file with its missing directories.
void Put(const std::string& path, const std::string& content, unsigned mode = 0644);

/// A file's content, or "(missing)".
std::string Slurp(const std::string& path);
