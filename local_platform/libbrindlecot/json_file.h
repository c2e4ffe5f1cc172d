/// One settings file: a JSON object (RFC 8259, and comments as JsonCpp reads them), read whole and
/// checked. Every fault is logged, one line each, and no value ever is: it may be a secret.
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
  /// Reads the file at `path`, which outlives the object. When it is missing, or faulty, the object is
  /// empty.
  explicit JsonFile(const char* path);

  /// Whether there is no such file, which is no fault.
  bool Missing() const { return missing_; }

  /// 0, or -1 once a fault was found.
  int Result() const { return faulty_ ? -1 : 0; }

  const Json::Value& Object() const { return object_; }

  /// Takes the value of `key` out of the object. False, with `value` as it was, when the object has none.
  bool Take(const char* key, Json::Value& value);

  /// Every key that was not taken is a fault.
  void RejectRest();

  /// The object's keys where they are names of the administrator's choice, in byte order. It is a fault
  /// when one is empty, not text, or equals another without regard to case.
  std::vector<std::string> Names();

  /// Logs that `key` was expected to be, or to have, `what`.
  void Expected(std::string_view key, std::string_view what);

  // A value of `key` in its one type. Anything else is a fault, and the result then of no use.

  bool Bool(std::string_view key, const Json::Value& value);

  int Integer(std::string_view key, const Json::Value& value, int lowest, int highest);

  /// A string of at least `shortest` bytes, 0 or 1. `item` ("item 2 to be ") says which one of the key.
  std::string Text(std::string_view key, const Json::Value& value, std::size_t shortest = 0,
                   const std::string& item = "");

  /// An array of such strings.
  std::vector<std::string> Texts(std::string_view key, const Json::Value& value, std::size_t shortest = 0);

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
