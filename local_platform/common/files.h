/// What the libraries of the local platform share. Every failure is logged here, one line at LOG_ERR
/// that names the file and the reason, unless a function says otherwise.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <string_view>

/// The most that is read from a file or a program: 8 MB, some hundred times what people write into one. More
/// would keep the run busy, or take the machine's memory.
inline constexpr std::size_t kMostBytes = 8 << 20;

/// Whether a whole file was read.
enum class ReadResult { kOk, kMissing, kFailed };

/// Reads the file at `path` whole into `content`; one of more than kMostBytes is a failure. A file that does
/// not exist is kMissing, and not logged: the caller knows whether that is a fault.
ReadResult ReadFile(const char* path, std::string& content);

/// Like ReadFile, for a file that holds a secret: one with any mode bit for group or others is a
/// failure.
ReadResult ReadSecretFile(const char* path, std::string& content);

/// Writes `content` to the descriptor `file`. False, not logged, with errno set, when not all of it could
/// be written.
bool WriteAll(int file, std::string_view content);

/// Writes `content` to the file at `path`, in place. 0, or -1.
int WriteFile(const char* path, std::string_view content);

/// Replaces the file at `path` by one with `content` and `mode`, atomically: a reader sees the old file
/// or the new one. 0, or -1 with the old file in place and nothing else left behind.
int ReplaceFile(const char* path, std::string_view content, mode_t mode);

/// `text` for a log line: control characters as `?`.
std::string Printable(std::string_view text);
