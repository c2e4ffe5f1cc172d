/// A settings file: one JSON object (RFC 8259, and comments as JsonCpp reads them), read whole and checked.
/// Each fault is logged in one line. No value is logged: it may be a secret.
///
///     PATH:LINE:COLUMN: syntax error
///     PATH: KEY: expected ...
#pragma once

#include <json/json.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

class JsonFile {
 public:
  /// Reads the file at `path`, a string that lives as long as this object. A file that is missing or is not
  /// one JSON object gives an empty object.
  explicit JsonFile(const char* path);

  /// True when the file does not exist, which is no fault.
  bool Missing() const { return missing_; }

  /// 0, or -1 when a fault was found.
  int Result() const { return faulty_ ? -1 : 0; }

  const Json::Value& Object() const { return object_; }

  /// Removes `key` from the object and moves its value to `value`. False when there is no such key; `value`
  /// is then unchanged.
  bool Take(const char* key, Json::Value& value);

  /// Reports each key that was not taken as a fault.
  void ReportUnknownKeys();

  /// The object's keys in byte order, for files whose keys are names. A name that is empty, is not text, or
  /// equals another one without regard to case is a fault.
  std::vector<std::string> ReadNames();

  /// Logs the fault `KEY: expected EXPECTED`, and makes Result() -1.
  void ReportFault(std::string_view key, std::string_view expected);

  // These check `value`, found at `key`, and return it. A value of another type is a fault; the result is
  // then of no use.

  bool ReadBool(std::string_view key, const Json::Value& value);

  int ReadInteger(std::string_view key, const Json::Value& value, int lowest, int highest);

  /// A string of at least `shortest` bytes, 0 or 1. For an item of a list, `item` (such as "item 2 to be ")
  /// names it in the fault.
  std::string ReadString(std::string_view key, const Json::Value& value, size_t shortest = 0,
                         const std::string& item = "");

  /// An array of such strings.
  std::vector<std::string> ReadStrings(std::string_view key, const Json::Value& value, size_t shortest = 0);

 private:
  void Parse();
  void ReportSyntaxError(int line, int column, const char* fault);

  bool IsPlain(const Json::Value& integer) const;

  const char* path_;
  std::string content_;
  Json::Value object_{Json::objectValue};
  bool missing_ = false;
  bool faulty_ = false;
  int faults_ = 0;  ///< reported by ReportFault
};
