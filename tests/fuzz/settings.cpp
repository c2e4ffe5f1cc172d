// A settings file: every fault is logged, and what is loaded is of the types and ranges of the table of keys.
#include <algorithm>

#include "fuzz.h"
#include "libbrindlecot/setting_keys.h"
#include "platform/brindlecot.h"

static bool IsPrintable(const std::string& text) {
  return std::none_of(text.begin(), text.end(), [](char c) { return (c >= 0 && c < ' ') || c == 0x7f; });
}

void Try(const std::string& input) {
  Put("/var/packages/Brindlecot/etc/settings/smtp.json", input);
  Postfix smtp;
  const bool loaded = smtp.LoadSettings() >= 0;
  assert(loaded == RecordedLog().empty());
  assert(std::all_of(RecordedLog().begin(), RecordedLog().end(), IsPrintable));
  for (const SettingKey& key : loaded ? kSmtpKeys : std::initializer_list<SettingKey>{}) {
    const boost::any value = smtp.Get(key.key);
    const auto* number = boost::any_cast<Value<int>>(&value);
    const auto* text = boost::any_cast<Value<std::string>>(&value);
    assert(number == nullptr || (number->value >= key.lowest && number->value <= key.highest));
    assert(text == nullptr || IsPrintable(text->value));
    assert(number != nullptr || text != nullptr || boost::any_cast<Value<bool>>(&value) != nullptr);
  }
}
