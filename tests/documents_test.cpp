/// What people and their editors read about the settings is what the table of settings says.
#include <gtest/gtest.h>
#include <json/json.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>

#include "libbrindlecot/setting_keys.h"
#include "platform/nubocore.h"

namespace {

using Strings = std::vector<std::string>;

const struct {
  std::string name;
  std::initializer_list<SettingKey> keys;
  Strings lists;  ///< keys that stand in no table
} kFiles[] = {{"smtp", kSmtpKeys, {"additional_domains", "dnsbl"}},
              {"scanner", kScannerKeys, {}},
              {"imap_pop3", kImapPop3Keys, {}}};

std::ifstream Open(const std::string& path) { return std::ifstream(CHECKOUT "/" + path); }

Json::Value DefaultOf(const SettingKey& setting) {
  return std::visit([](auto value) { return Json::Value(value); }, setting.defaultValue);
}

const char* TypeName(const Json::Value& value) {
  return value.isBool() ? "boolean" : value.isInt() ? "integer" : "string";
}

TEST(DocumentsTest, Schemas) {
  for (const auto& file : kFiles) {
    Json::Value schema;
    Open("data/schema/" + file.name + ".schema.json") >> schema;
    Json::Value& properties = schema["properties"];
    for (const SettingKey& setting : file.keys) {
      Json::Value expected;
      expected["default"] = DefaultOf(setting);
      expected["type"] = TypeName(expected["default"]);
      if (expected["default"].isInt()) {
        expected["minimum"] = setting.lowest;
        expected["maximum"] = setting.highest;
      }
      Json::Value found;
      properties.removeMember(setting.key, &found);
      for (const char* other : {"description", "examples", "pattern"}) found.removeMember(other);
      EXPECT_EQ(found, expected) << setting.key;
    }
    EXPECT_EQ(properties.getMemberNames(), file.lists);
  }
}

TEST(DocumentsTest, ManualPage) {
  std::multiset<std::string> found;
  std::string heading;
  std::ifstream page = Open("docs/man/brindlecot-settings.5");
  for (std::string line; std::getline(page, line);) {
    if (line.rfind(".Ss ", 0) == 0) heading = line.substr(4) + ": ";
    if (line.rfind(".It Ic ", 0) == 0) found.insert(heading + line);
  }
  for (const auto& file : kFiles) {
    for (const SettingKey& setting : file.keys) {
      const Json::Value standard = DefaultOf(setting);
      std::string line = file.name + ".json: .It Ic " + setting.key + " Pq " + TypeName(standard);
      if (standard.isInt()) {
        line += ", " + std::to_string(setting.lowest) + " to " + std::to_string(setting.highest);
      }
      const std::string value = standard.asString();
      line += "; default " + (value.empty() ? "empty" : value);
      EXPECT_EQ(found.count(line), 1) << line;
      found.erase(line);
    }
  }
  EXPECT_EQ(Strings(found.begin(), found.end()),
            Strings({"attachment_filter.json: .It Ic deny_extensions Pq list of strings; default empty",
                     "smtp.json: .It Ic additional_domains Pq list of strings; default empty",
                     "smtp.json: .It Ic dnsbl Pq list of objects; default empty"}));
}

TEST(DocumentsTest, Completion) {
  char usage[256] = {};
  const char* emulator = std::getenv("EMULATOR");
  FILE* program = ZELBCPopen(emulator != nullptr ? emulator : NUBO_SET_CONFIG, "r",
                             emulator != nullptr ? NUBO_SET_CONFIG : nullptr, nullptr);
  ASSERT_NE(program, nullptr);
  EXPECT_NE(std::fgets(usage, sizeof usage, program), nullptr);
  ZELBCPclose(program);
  std::ifstream completion = Open("data/completion/nubo_set_config");
  std::string words;
  std::getline(completion, words, '\'');
  std::getline(completion, words, '\'');
  std::replace(words.begin(), words.end(), ' ', '|');
  EXPECT_EQ("nubo_set_config {" + words + "}\n", usage);
}

}  // namespace
