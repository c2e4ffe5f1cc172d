// The alias table: an object of alias names, each with its recipients, exported in the format of aliases(5).
//
//     {"postmaster": ["root"], "sales": ["alice", "bob@example.com"]}
#include <cstdio>
#include <map>
#include <vector>

#include "common/files.h"
#include "libbrindlecot/json_file.h"
#include "platform/brindlecot.h"

namespace {

// Puts `text` in double quotes when it has one of the characters `specials`.
std::string Quote(const std::string& text, const char* specials) {
  if (text.find_first_of(specials) == std::string::npos) return text;
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      quoted += '\\';
    }
    quoted += c;
  }
  return quoted + '"';
}

}  // namespace

struct Alias::Data {
  std::map<std::string, std::vector<std::string>> recipients;  // by alias name
};

Alias::Alias() : data_(std::make_unique<Data>()) {}
Alias::~Alias() = default;

int Alias::load() {
  JsonFile file("/var/packages/Brindlecot/etc/settings/aliases.json");
  std::map<std::string, std::vector<std::string>> aliases;
  if (file.Missing()) {
    aliases["postmaster"] = {"root"};
  }
  for (const std::string& name : file.ReadNames()) {
    const Json::Value& recipients = file.Object()[name];
    aliases[name] = file.ReadStrings(name, recipients, 1);
    if (recipients.isArray() && recipients.empty()) {
      file.ReportFault(name, "at least one recipient");
    }
  }
  if (file.Result() == 0) {
    data_->recipients.swap(aliases);
  }
  return file.Result();
}

int Alias::ExportAlias(const std::string& path) {
  std::string lines;
  for (const auto& [name, recipients] : data_->recipients) {
    const char* separator = ": ";
    lines += Quote(name, " \"#%(),:;<>@[\\]");
    for (const std::string& recipient : recipients) {
      lines += separator + Quote(recipient, " \"#%(),:;<>[\\]");  // `@` is part of an address
      separator = ", ";
    }
    lines += '\n';
  }
  const int result = WriteFile(path.c_str(), lines);
  if (result < 0) (void)std::remove(path.c_str());  // half a table is of no use
  return result;
}
