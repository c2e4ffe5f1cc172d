// Takes the place of the appliance's package helper. `nubopkghelper update Brindlecot pam-config JSON` stores
// the PAM configuration of the package. The JSON (RFC 8259) is an object with one member, "id-list": the PAM
// ids of the IMAP/POP3 server and of the SMTP server.
#include <json/json.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

#include "common/files.h"

namespace {

bool IsPamConfig(std::string_view text) try {
  Json::CharReaderBuilder builder;
  Json::CharReaderBuilder::strictMode(&builder.settings_);
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value config;
  if (!reader->parse(text.data(), text.data() + text.size(), &config, nullptr) || !config.isObject()) {
    return false;
  }
  const Json::Value& ids = config["id-list"];
  return config.size() == 1 && ids.isArray() && ids.size() == 2 && ids[0].isString() && ids[1].isString();
} catch (const Json::Exception&) {
  return false;  // nested too deeply
}

// 0, or -1 with a message.
int Store(std::string_view config) {
  for (const char* directory : {"/usr/nubo", "/usr/nubo/etc", "/usr/nubo/etc/pam-config"}) {
    if (mkdir(directory, 0755) != 0 && errno != EEXIST) {
      std::fprintf(stderr, "nubopkghelper: cannot make %s: %s\n", directory, std::strerror(errno));
      return -1;
    }
  }
  if (ReplaceFile("/usr/nubo/etc/pam-config/Brindlecot.json", config, 0644) != 0) {
    std::fprintf(stderr, "nubopkghelper: cannot store the configuration, see the system log\n");
    return -1;
  }
  return 0;
}

}  // namespace

int main(int argc, char* argv[]) {
  if (argc != 5 || std::strcmp(argv[1], "update") != 0 || std::strcmp(argv[2], "Brindlecot") != 0 ||
      std::strcmp(argv[3], "pam-config") != 0) {
    std::fprintf(stderr, "Usage: nubopkghelper update Brindlecot pam-config JSON\n");
    return 1;
  }
  if (!IsPamConfig(argv[4])) {
    std::fprintf(stderr, "nubopkghelper: expected a JSON object whose one member id-list has two strings\n");
    return 1;
  }
  return Store(argv[4]) == 0 ? 0 : 1;
}
