/// One settings file: a JSON object (RFC 8259, and comments as JsonCpp reads them), read whole and
/// checked. Each fault is logged in one line. A value is never logged: it may be a secret.
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
  /// Reads the file at `path`; the string has to live as long as this object. A file that is missing or is
  /// not one JSON object gives an empty object.
  explicit JsonFile(const char* path);

  /// True when the file does not exist. That is not a fault.
  bool Missing() const { return missing_; }

  /// 0, or -1 when a fault was found.
  int Result() const { return faulty_ ? -1 : 0; }

  const Json::Value& Object() const { return object_; }

  /// Removes `key` from the object and puts its value into `value`. False when there is no such key; `value`
  /// is then unchanged.
  bool Take(const char* key, Json::Value& value);

  /// Reports each key that was not taken as a fault.
  void RejectRest();

  /// The object's keys in byte order, for files whose keys are names. A name that is empty, is not text, or
  /// equals another one without regard to case is a fault.
  std::vector<std::string> Names();

  /// Reports a fault: `KEY: expected WHAT`.
  void Expected(std::string_view key, std::string_view what);

  // Each checks `value`, found at `key`, and returns it. A value of another type is a fault; the result is
  // then of no use.

  bool Bool(std::string_view key, const Json::Value& value);

  int Integer(std::string_view key, const Json::Value& value, int lowest, int highest);

  /// A string of at least `shortest` bytes, 0 or 1. `item` (such as "item 2 to be ") stands in the fault of a
  /// list's item.
  std::string Text(std::string_view key, const Json::Value& value, size_t shortest = 0,
                   const std::string& item = "");

  /// An array of such strings.
  std::vector<std::string> Texts(std::string_view key, const Json::Value& value, size_t shortest = 0);

 private:
  void Parse();
  void SyntaxError(int line, int column, const char* what);

  bool IsPlain(const Json::Value& integer) const;

  const char* path_;
  std::string content_;
  Json::Value object_{Json::objectValue};
  bool missing_ = false;
  bool faulty_ = false;
  int faults_ = 0;  ///< reported by Expected
};
