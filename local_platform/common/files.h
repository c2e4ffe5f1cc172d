/// Files, for the libraries of the local platform. Each failure is logged here in one line at LOG_ERR with
/// the file and the reason, unless a function says otherwise.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

/// The most that is read from a file or a program: 8 MB, a hundred times a large settings file. More would
/// take long, or all of the machine's memory.
inline constexpr size_t kMostBytes = 8 << 20;

/// How reading a file went.
enum class ReadResult { kOk, kMissing, kFailed };

/// Reads the file at `path` whole into `content`; one of more than kMostBytes is a failure. A file that does
/// not exist is kMissing and is not logged, because only the caller knows whether it is a fault.
ReadResult ReadFile(const char* path, std::string& content);

/// As ReadFile, for a file that holds a secret. It is a failure when group or others have any right to it.
ReadResult ReadSecretFile(const char* path, std::string& content);

/// Writes `content` to the descriptor `file`. False, with errno set, when not all of it could be written;
/// that is not logged.
bool WriteAll(int file, std::string_view content);

/// Writes `content` to the file at `path`, in place. 0, or -1.
int WriteFile(const char* path, std::string_view content);

/// Replaces the file at `path` by one with `content` and `mode`, atomically: a reader sees the old file
/// or the new one. 0, or -1 with the old file in place and nothing else left behind.
int ReplaceFile(const char* path, std::string_view content, mode_t mode);

/// `text` for a log line, with `?` for each control character.
std::string Printable(std::string_view text);
