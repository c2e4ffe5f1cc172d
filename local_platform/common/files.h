/// Files, for the libraries of the local platform. Each function logs its failure in one line at LOG_ERR with
/// the file and the reason, unless its comment says otherwise.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

/// The maximum read from a file or a program, 8 MB: a hundred times a large settings file. More would take
/// long, or all of the machine's memory.
inline constexpr size_t kMaxBytes = 8 << 20;

/// The result of reading a file.
enum class ReadResult { kOk, kMissing, kFailed };

/// Reads the whole file at `path` into `content`; a file of more than kMaxBytes is a failure. A file that
/// does not exist is kMissing and is not logged, because only the caller knows whether that is a fault.
ReadResult ReadFile(const char* path, std::string& content);

/// As ReadFile, for a file with a secret. It is a failure when group or others have any right to it.
ReadResult ReadSecretFile(const char* path, std::string& content);

/// Writes `content` to the descriptor `file`. False, with errno set, when not all of it could be written.
/// Logs nothing.
bool WriteAll(int file, std::string_view content);

/// Writes `content` to the file at `path`, in place. 0, or -1.
int WriteFile(const char* path, std::string_view content);

/// Replaces the file at `path` atomically by one with `content` and `mode`: a reader sees the old file or the
/// new one. 0, or -1 with the old file in place and no other file left.
int ReplaceFile(const char* path, std::string_view content, mode_t mode);

/// `text` for a log line, with `?` for each control character.
std::string Printable(std::string_view text);
