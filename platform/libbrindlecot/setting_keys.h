/// Every setting of the three groups that are read by key: its type, default and range, once.
#pragma once

#include <json/json.h>

#include <climits>
#include <vector>

struct SettingKey {
  const char* key;
  Json::Value defaultValue;  ///< a bool, an int or a string; its type is the setting's
  int lowest = INT_MIN;      ///< of an int
  int highest = INT_MAX;
};

extern const std::vector<SettingKey> kSmtpKeys;
extern const std::vector<SettingKey> kScannerKeys;
extern const std::vector<SettingKey> kImapPop3Keys;
