// A platform for tests, linked in the place of the four libraries: the program with it (fake_set_config)
// prints every call and log line in their order, answers from a scene, and lets any call fail.
//
// The scene is the text in the environment's NUBO_SCENE, a line each (run_cases.py has the rest of them):
//
//   set smtp KEY VALUE        a setting (also scanner, imap_pop3); VALUE "mistyped" holds no value
//   domain NAME / dnsbl ZONE KIND / user NAME / value KEY TEXT / info LINE / search LINE
//   fail CALL                 a call that fails
//
// "value" keys: uri, base, binddn, secret of the LDAP client; domain_alias_map; user, password, joined of the
// Windows domain. "info" and "search" lines are what PopenToFile stores and what `net ads search` prints.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "libbrindlecot/setting_keys.h"
#include "platform/brindlecot.h"
#include "platform/nubocore.h"
#include "platform/nubosdk.h"
#include "platform/nubowins.h"
#include "recorded_syslog.h"

struct ZELBCSzHash {
  std::vector<std::pair<std::string, std::string>> pairs;
};

namespace {

struct Scene {
  std::map<std::string, std::map<std::string, boost::any>> settings;
  std::list<std::string> domains;
  std::list<std::pair<std::string, std::string>> dnsbl;
  std::vector<std::string> users;
  std::map<std::string, std::string> values;
  std::string info;
  std::string search;
  std::set<std::string> failing;

  Scene();
  void Set(const std::string& object, const std::string& key, const std::string& text);
};

Scene::Scene() {
  // Defaults as the local platform has them.
  for (const SettingKey& key : kSmtpKeys) settings["smtp"][key.key] = Default(key);
  for (const SettingKey& key : kScannerKeys) settings["scanner"][key.key] = Default(key);
  for (const SettingKey& key : kImapPop3Keys) settings["imap_pop3"][key.key] = Default(key);
  const char* text = std::getenv("NUBO_SCENE");
  std::istringstream lines(text == nullptr ? "" : text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string verb;
    std::string first;
    std::string rest;
    words >> verb >> first;
    const std::string all = line.substr(std::min(line.size(), verb.size() + 1));
    std::getline(words.ignore(), rest);
    if (verb == "set") Set(first, rest.substr(0, rest.find(' ')), rest);
    if (verb == "domain") domains.push_back(first);
    if (verb == "dnsbl") dnsbl.emplace_back(first, rest);
    if (verb == "user") users.push_back(all);
    if (verb == "value") values[first] = rest;
    if (verb == "info") info += all + "\n";
    if (verb == "search") search += all + "\n";
    if (verb == "fail") failing.insert(first);
  }
}

void Scene::Set(const std::string& object, const std::string& key, const std::string& text) {
  boost::any& value = settings[object].at(key);
  const std::string given = text.substr(std::min(text.size(), key.size() + 1));
  if (given == "mistyped") {
    value = boost::any();
  } else if (value.type() == typeid(Value<bool>)) {
    value = Value<bool>{given == "true"};
  } else if (value.type() == typeid(Value<int>)) {
    value = Value<int>{std::stoi(given)};
  } else {
    value = Value<std::string>{given};
  }
}

Scene& TheScene() {
  static Scene scene;
  return scene;
}

std::map<const Config*, std::string> objects;
std::string sharing;  // what the calls that share the last line begin with

void EndLine() {
  std::cout << (sharing.empty() ? "" : "\n");
  sharing.clear();
}

void PrintLog() {
  for (const std::string& line : RecordedLog()) {
    EndLine();
    std::cout << "log " << line << std::endl;
  }
  RecordedLog().clear();
}

void Print(const std::string& line) {
  PrintLog();
  EndLine();
  std::cout << line << std::endl;
}

// Calls of one kind that follow one another share a line.
void PrintShared(const std::string& call, const std::string& argument) {
  PrintLog();
  if (sharing != call) {
    EndLine();
    std::cout << call;
    sharing = call;
  }
  std::cout << " " << argument << std::flush;
}

bool Fails(const std::string& name, const std::string& arguments) {
  Print(arguments.empty() ? name : name + " " + arguments);
  return TheScene().failing.count(name) != 0;
}

int Load(const Config* object, const std::string& name) {
  objects[object] = name;
  PrintShared("LoadSettings", name);
  if (name == "imap_pop3") EndLine();  // the program itself may print next
  return TheScene().failing.count("LoadSettings") != 0 ? -1 : 0;
}

// The arguments of a variadic call, up to the closing null one.
std::string Join(va_list arguments) {
  std::string joined;
  // clang-tidy 14 loses track of a va_list that is handed on. NOLINTNEXTLINE(clang-analyzer-valist.*)
  while (const char* argument = va_arg(arguments, const char*)) joined += std::string(" ") + argument;
  return joined;
}

int Answer(const std::string& key, char* value, int size) {
  const auto found = TheScene().values.find(key);
  if (found == TheScene().values.end() || static_cast<int>(found->second.size()) >= size) return -1;
  return static_cast<int>(found->second.copy(value, found->second.size()));
}

}  // namespace

// The program's entry, under another name (CMakeLists.txt).
int ProgramMain(int argc, char* argv[]);

int main(int argc, char* argv[]) {
  const int status = ProgramMain(argc, argv);
  PrintLog();
  EndLine();
  return status;
}

struct Config::Data {};
struct Alias::Data {};

Config::Config() = default;
Config::~Config() = default;
Postfix::Postfix() = default;
Postfix::~Postfix() = default;
MailScanner::MailScanner() = default;
MailScanner::~MailScanner() = default;
ImapPop3::ImapPop3() = default;
ImapPop3::~ImapPop3() = default;
Alias::Alias() = default;
Alias::~Alias() = default;

boost::any& Config::Get(const std::string& key) {
  const std::string& object = objects[this];
  PrintShared("read " + object + ":", key);
  return TheScene().settings[object][key];
}

int Postfix::LoadSettings() { return Load(this, "smtp"); }
int MailScanner::LoadSettings() { return Load(this, "scanner"); }
int ImapPop3::LoadSettings() { return Load(this, "imap_pop3"); }

std::list<std::string>& Postfix::GetAdditionDomain() {
  Print("GetAdditionDomain");
  return TheScene().domains;
}

std::list<std::pair<std::string, std::string>>& Postfix::GetDNSBLList() {
  Print("GetDNSBLList");
  return TheScene().dnsbl;
}

int Alias::load() { return Fails("Alias::load", "") ? -7 : 0; }

int Alias::ExportAlias(const std::string& path) {
  if (Fails("ExportAlias", path)) return -7;
  std::ofstream(path) << "postmaster: root\n";
  return 0;
}

int SenderQuota::GenerateConfig() { return Fails("SenderQuota::GenerateConfig", "") ? 3 : 0; }

int AttachmentFilter::GenerateConfig() { return Fails("AttachmentFilter::GenerateConfig", "") ? -7 : 0; }

int PopenToFile(FILE*, const char* path, const char* mode) {
  if (Fails("PopenToFile", std::string(path) + " " + mode)) return 7;
  std::ofstream(path) << TheScene().info;
  return 0;
}

int ZELBCFileExist(const char* path) { return access(path, F_OK) == 0 ? 7 : 0; }

int ZELBCFileGetPair(const char* path, ZELBCSzHash** hash) {
  if (Fails("ZELBCFileGetPair", path)) return -7;
  std::ifstream lines(path);
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    ZELBCSzHashSetValue(hash, line.substr(0, equals).c_str(), line.substr(equals + 1).c_str());
  }
  return 0;
}

// Appends, which is all that a generator can tell of the merge.
int ZELBCFileSetKeys(const char* path, ZELBCSzHash* hash, int flags, const char* format) {
  if (Fails("ZELBCFileSetKeys", std::string(path) + " " + std::to_string(flags) + " " + format)) return -7;
  std::ofstream file(path, std::ios::app);
  for (const auto& [key, value] : hash->pairs) file << key << " = " << value << "\n";
  return 0;
}

int ZELBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags) {
  Fails("ZELBCFileGetKeyValue",
        std::string(path) + " " + key + " " + std::to_string(size) + " " + std::to_string(flags));
  return Answer(key, value, size);
}

ZELBCSzHash* ZELBCSzHashAlloc(int capacity) {
  return Fails("ZELBCSzHashAlloc", std::to_string(capacity)) ? nullptr : new ZELBCSzHash;
}

const char* ZELBCSzHashGetValue(const ZELBCSzHash* hash, const char* key) {
  if (Fails("ZELBCSzHashGetValue", key)) return nullptr;
  for (const auto& [name, value] : hash->pairs) {
    if (name == key) return value.c_str();
  }
  return nullptr;
}

// Replaces the hash, as the library may.
int ZELBCSzHashSetValue(ZELBCSzHash** hash, const char* key, const char* value) {
  auto* replaced = new ZELBCSzHash(**hash);
  replaced->pairs.emplace_back(key, value);
  delete *hash;
  *hash = replaced;
  return 0;
}

void ZELBCSzHashFree(ZELBCSzHash* hash) { delete hash; }

ZELBCSzList* ZELBCSzListAlloc(int capacity) {
  return Fails("ZELBCSzListAlloc", std::to_string(capacity)) ? nullptr : new ZELBCSzList{};
}

void ZELBCSzListFree(ZELBCSzList* list) {
  for (int i = 0; i < list->count; ++i) free(list->items[i]);
  delete[] list->items;
  delete list;
}

int ZELBUserEnum(ZELBCSzList** list, int type, const char* domain) {
  if (Fails("ZELBUserEnum", std::to_string(type) + " " + domain)) return -7;
  ZELBCSzListFree(*list);
  const int count = static_cast<int>(TheScene().users.size());
  *list = new ZELBCSzList{count, 0, new char*[TheScene().users.size()]};
  for (const std::string& user : TheScene().users) (*list)->items[(*list)->count++] = strdup(user.c_str());
  return 0;
}

// The table goes into the trace as it is at this moment: the relay's is gone afterwards.
int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
  const bool alone = arg2 == nullptr && arg3 == nullptr && arg4 == nullptr;
  const bool fails = Fails("ZELBCExec", std::string(program) + " " + arg1 + (alone ? "" : " and more"));
  struct stat table = {};
  if (stat(arg1, &table) == 0 && S_ISREG(table.st_mode)) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%o", table.st_mode & 07777U);
    std::ifstream content(arg1);
    Print(std::string("  compiles, mode ") + mode + ":");
    std::cout << std::string(std::istreambuf_iterator<char>(content), {}) << std::flush;
  }
  return fails ? -7 : 0;
}

int ZELBCExecl(const char* program, int options, ...) {
  va_list arguments;
  va_start(arguments, options);
  const std::string joined = Join(arguments);
  va_end(arguments);
  return Fails("ZELBCExecl", std::string(program) + " " + std::to_string(options) + joined) ? 7 : 0;
}

FILE* ZELBCPopen(const char* program, const char* mode, ...) {
  va_list arguments;
  va_start(arguments, mode);
  const std::string joined = Join(arguments);
  va_end(arguments);
  if (Fails("ZELBCPopen", std::string(program) + " " + mode + joined)) return nullptr;
  FILE* output = tmpfile();
  if (joined.find("search") != std::string::npos) fputs(TheScene().search.c_str(), output);
  rewind(output);
  return output;
}

// Says whether the scratch file was still there by then.
int ZELBCPclose(FILE* stream) {
  std::string call = "ZELBCPclose";
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    const std::string path = entry.path();
    if (path.rfind("/tmp/ad_info", 0) == 0) call.append(" before ").append(path);
  }
  Print(call);
  return fclose(stream);
}

char* ZELBCStrTrimSpace(char* text, int flags) {
  Print("ZELBCStrTrimSpace " + std::to_string(flags));
  const std::string kept(text);
  const size_t first = kept.find_first_not_of(" \t\r\n");
  const size_t last = kept.find_last_not_of(" \t\r\n");
  text[first == std::string::npos ? 0 : kept.copy(text, last + 1 - first, first)] = '\0';
  return text;
}

unsigned int ZELBCErrGet() { return 0xD900; }

int NUBOLDAPInfoGetFromConf(const char* path, const char* key, char* value, int size) {
  const std::string arguments = std::string(path) + " " + key + " " + std::to_string(size);
  return Fails("NUBOLDAPInfoGetFromConf", arguments) ? 0 : Answer(key, value, size);
}

int NUBOLDAPSecretGet(char* secret, int size) {
  return Fails("NUBOLDAPSecretGet", std::to_string(size)) ? -7 : Answer("secret", secret, size);
}

int NUBOWinsADSJoined() {
  Fails("NUBOWinsADSJoined", "");
  return TheScene().values.count("joined") != 0 ? 7 : 0;
}

int NUBOWinsGetAuthUser(char* domain, int domainSize, char* user, int userSize, char* password,
                        int passwordSize) {
  if (Fails("NUBOWinsGetAuthUser", std::to_string(domainSize) + " " + std::to_string(userSize) + " " +
                                       std::to_string(passwordSize))) {
    return -7;
  }
  domain[0] = 'x';
  return Answer("user", user, userSize) < 0 ? -1 : Answer("password", password, passwordSize);
}
