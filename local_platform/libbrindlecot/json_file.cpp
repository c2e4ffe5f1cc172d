#include "libbrindlecot/json_file.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

#include "common/files.h"
#include "libbrindlecot/utf8.h"
#include "platform/nubocore.h"

namespace {

// The reader of all files. To make one for each file would take long.
Json::CharReader& Reader() {
  static const std::unique_ptr<Json::CharReader> reader([] {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["allowComments"] = true;
    builder["collectComments"] = false;
    builder["skipBom"] = false;
    return builder.newCharReader();
  }());
  return *reader;
}

}  // namespace

JsonFile::JsonFile(const char* path) : path_(path) {
  const ReadResult result = ReadFile(path, content_);
  missing_ = result == ReadResult::kMissing && ZELBCFileExist(path) == 0;
  faulty_ = result == ReadResult::kFailed;
  if (result == ReadResult::kMissing && !missing_) {
    syslog(LOG_ERR, "%s: expected a readable file: it is a link to nothing", path);
    faulty_ = true;
  }
  if (result == ReadResult::kOk) {
    // JsonCpp takes a NUL byte for the end of the text, and every other control character for a fault.
    std::replace(content_.begin(), content_.end(), '\0', '\1');
    if (content_.rfind("\xef\xbb\xbf", 0) == 0) {
      content_.erase(0, 3);  // a byte order mark; JsonCpp's offsets do not count it
    }
    Parse();
  }
}

void JsonFile::Parse() {
  Json::Value root;
  std::string errors;
  try {
    if (!Reader().parse(content_.data(), content_.data() + content_.size(), &root, &errors)) {
      // Later errors follow from the first one. Its text may quote a secret, so only its place is logged.
      int line = 1;
      int column = 1;
      std::sscanf(errors.c_str(), "* Line %d, Column %d", &line, &column);
      const bool duplicate = errors.find("\n  Duplicate key: ") == errors.find('\n');
      ReportSyntaxError(line, column, duplicate ? "duplicate key" : "syntax error");
    } else if (!root.isObject()) {
      ReportSyntaxError(1, 1, "not an object");
    } else {
      object_.swap(root);
    }
  } catch (const Json::Exception&) {
    ReportSyntaxError(1, 1, "nested too deeply");
  }
}

void JsonFile::ReportSyntaxError(int line, int column, const char* fault) {
  syslog(LOG_ERR, "%s:%d:%d: %s", path_, line, column, fault);
  faulty_ = true;
}

void JsonFile::ReportFault(std::string_view key, std::string_view expected) {
  constexpr int kMaxFaults = 100;  // log lines for one file
  faulty_ = true;
  if (++faults_ <= kMaxFaults) {
    syslog(LOG_ERR, "%s: %s: expected %s", path_, Printable(key).c_str(), Printable(expected).c_str());
  } else if (faults_ == kMaxFaults + 1) {
    syslog(LOG_ERR, "%s: more faults than these %d", path_, kMaxFaults);
  }
}

bool JsonFile::Take(const char* key, Json::Value& value) { return object_.removeMember(key, &value); }

void JsonFile::ReportUnknownKeys() {
  for (const std::string& key : object_.getMemberNames()) {
    ReportFault(key, "a known key");
  }
}

std::vector<std::string> JsonFile::ReadNames() {
  std::vector<std::string> names = object_.getMemberNames();
  std::map<std::u32string, std::string> seen;
  for (const std::string& name : names) {
    if (name.empty() || !IsText(name)) {
      ReportFault(name, "a non-empty name of UTF-8 without control characters");
      continue;
    }
    const auto [first, added] = seen.emplace(FoldCase(name), name);
    if (!added) {
      ReportFault(name, "a name that differs from " + first->second + " in more than case");
    }
  }
  return names;
}

bool JsonFile::ReadBool(std::string_view key, const Json::Value& value) {
  if (!value.isBool()) {
    ReportFault(key, "true or false");
    return false;
  }
  return value.asBool();
}

// JsonCpp also accepts "-" and "01", which are not JSON.
bool JsonFile::IsPlain(const Json::Value& integer) const {
  const auto start = static_cast<size_t>(integer.getOffsetStart());
  const std::string text = content_.substr(start, static_cast<size_t>(integer.getOffsetLimit()) - start);
  return text == "-0" || text == std::to_string(integer.asInt());
}

int JsonFile::ReadInteger(std::string_view key, const Json::Value& value, int lowest, int highest) {
  // isInt() alone also takes 25.0 and 1e3.
  if (value.type() == Json::realValue || !value.isInt() || value.asInt() < lowest ||
      value.asInt() > highest || !IsPlain(value)) {
    ReportFault(key, "an integer from " + std::to_string(lowest) + " to " + std::to_string(highest));
    return lowest;
  }
  return value.asInt();
}

std::string JsonFile::ReadString(std::string_view key, const Json::Value& value, size_t shortest,
                                 const std::string& item) {
  std::string text = value.isString() ? value.asString() : "";
  if (!value.isString() || text.size() < shortest || !IsText(text)) {
    const std::string type = shortest > 0 ? "a non-empty string" : "a string";
    ReportFault(key, item + type + " of UTF-8 without control characters");
  }
  return text;
}

std::vector<std::string> JsonFile::ReadStrings(std::string_view key, const Json::Value& value,
                                               size_t shortest) {
  std::vector<std::string> texts;
  if (!value.isArray()) {
    ReportFault(key, "an array of strings");
    return texts;
  }
  for (const Json::Value& item : value) {
    texts.push_back(ReadString(key, item, shortest, "item " + std::to_string(texts.size() + 1) + " to be "));
  }
  return texts;
}
