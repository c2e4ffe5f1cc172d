#include "core/config_generator.h"

#include <syslog.h>

namespace {

template <typename T>
T Read(Config& settings, const char* key, const char* type) {
  try {
    return boost::any_cast<Value<T>>(settings.Get(key)).value;
  } catch (const boost::bad_any_cast&) {
    syslog(LOG_ERR, "%s:%d setting %s: expected a value of type %s", kLogSource, 71, key, type);
    throw;
  }
}

}  // namespace

int ConfigGenerator::LoadAllSettings() {
  if (smtp.LoadSettings() < 0) return -1;
  if (scanner.LoadSettings() < 0) return -1;
  if (imapPop3.LoadSettings() < 0) return -1;
  return 0;
}

bool GetBool(Config& settings, const char* key) { return Read<bool>(settings, key, "bool"); }

int GetInt(Config& settings, const char* key) { return Read<int>(settings, key, "int"); }

std::string GetString(Config& settings, const char* key) {
  return Read<std::string>(settings, key, "string");
}

std::string JoinList(const std::list<std::string>& items, const char* separator) {
  std::string joined;
  const char* between = "";
  for (const std::string& item : items) {
    joined += between;
    joined += item;
    between = separator;
  }
  return joined;
}

const char* YesNo(bool value) { return value ? "yes" : "no"; }
