// An nslcd.conf(5): a value is found whole, or not at all.
#include "common/text.h"
#include "fuzz.h"
#include "platform/nubosdk.h"

void Try(const std::string& input) {
  Put("/run/nslcd.conf", input);
  for (const char* option : {"uri", "base", "binddn"}) {
    char value[1024] = "untouched";
    const int length = NUBOLDAPInfoGetFromConf("/run/nslcd.conf", option, value, sizeof value);
    const std::string text = value;
    assert(text.size() == static_cast<std::size_t>(length > 0 ? length : 0) && text == Trim(text));
    assert(input.find(text) != std::string::npos);
    assert(text.empty() || NUBOLDAPInfoGetFromConf("/run/nslcd.conf", option, value, length) <= 0);
    assert(value[0] == '\0');
  }
}
