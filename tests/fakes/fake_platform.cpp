#include "fake_platform.h"

#include <sys/stat.h>

#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "libbrindlecot/setting_keys.h"
#include "platform/nubocore.h"
#include "platform/nubosdk.h"
#include "platform/nubowins.h"
#include "private_root.h"
#include "recorded_syslog.h"

FakePlatform fake;

const std::string& FakePlatform::Trace() {
  for (const std::string& line : RecordedLog()) trace.append("log ").append(line).append("\n");
  RecordedLog().clear();
  return trace;
}

void FakePlatform::Record(const std::string& call) {
  Trace();
  trace.append(call).append("\n");
}

bool FakePlatform::Fails(const std::string& name, const std::string& arguments) {
  Record(arguments.empty() ? name : name + " " + arguments);
  return ++calls == failAt || failing.count(name) != 0;
}

namespace {

std::map<const Config*, std::string> objects;

int Load(const Config* object, const std::string& name) {
  objects[object] = name;
  return fake.Fails("LoadSettings", name) ? -1 : 0;
}

// The arguments of a variadic call, up to the closing null one.
std::string Join(va_list arguments) {
  std::string joined;
  // clang-tidy 14 loses track of a va_list that is handed on. NOLINTNEXTLINE(clang-analyzer-valist.*)
  while (const char* argument = va_arg(arguments, const char*)) joined += std::string(" ") + argument;
  return joined;
}

int Answer(const std::string& key, char* value, int size) {
  const auto found = fake.values.find(key);
  if (found == fake.values.end() || static_cast<int>(found->second.size()) >= size) return -1;
  return static_cast<int>(found->second.copy(value, found->second.size()));
}

}  // namespace

FakePlatform DefaultPlatform() {
  FakePlatform platform;
  const std::pair<const char*, const std::vector<SettingKey>*> groups[] = {
      {"smtp", &kSmtpKeys}, {"scanner", &kScannerKeys}, {"imap_pop3", &kImapPop3Keys}};
  for (const auto& [object, keys] : groups) {
    for (const SettingKey& key : *keys) {
      boost::any& value = platform.settings[object][key.key];
      if (key.defaultValue.isBool()) {
        value = Value<bool>{key.defaultValue.asBool()};
      } else if (key.defaultValue.isInt()) {
        value = Value<int>{key.defaultValue.asInt()};
      } else {
        value = Value<std::string>{key.defaultValue.asString()};
      }
    }
  }
  return platform;
}

// The program's entry, under another name (tests/CMakeLists.txt).
int ProgramMain(int argc, char* argv[]);

int RunProgram(const std::vector<std::string>& arguments) {
  std::vector<std::string> words = {"nubo_set_config"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(words.size() + 1);
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  const int status = ProgramMain(static_cast<int>(words.size()), pointers.data());
  fake.Trace();
  return status;
}

struct ZELBCSzHash {
  std::vector<std::pair<std::string, std::string>> pairs;
};

boost::any& Config::Get(const std::string& key) {
  // Reads that follow one another share a line.
  const std::string& object = objects[this];
  const std::string& trace = fake.Trace();
  const size_t last = trace.rfind('\n', trace.size() - 2) + 1;
  if (!trace.empty() && trace.compare(last, 5 + object.size(), "read " + object) == 0) {
    fake.trace.insert(trace.size() - 1, " " + key);
  } else {
    fake.Record("read " + object + ": " + key);
  }
  return fake.settings[object][key];
}

int Postfix::LoadSettings() { return Load(this, "smtp"); }
int MailScanner::LoadSettings() { return Load(this, "scanner"); }
int ImapPop3::LoadSettings() { return Load(this, "imap_pop3"); }

std::list<std::string>& Postfix::GetAdditionDomain() {
  fake.Record("GetAdditionDomain");
  return fake.domains;
}

std::list<std::pair<std::string, std::string>>& Postfix::GetDNSBLList() {
  fake.Record("GetDNSBLList");
  return fake.dnsbl;
}

int Alias::load() { return fake.Fails("Alias::load", "") ? -7 : 0; }

int Alias::ExportAlias(const std::string& path) {
  if (fake.Fails("ExportAlias", path)) return -7;
  std::ofstream(path) << "postmaster: root\n";
  return 0;
}

int SenderQuota::GenerateConfig() { return fake.Fails("SenderQuota::GenerateConfig", "") ? 3 : 0; }

int AttachmentFilter::GenerateConfig() { return fake.Fails("AttachmentFilter::GenerateConfig", "") ? -7 : 0; }

int PopenToFile(FILE*, const char* path, const char* mode) {
  if (fake.Fails("PopenToFile", std::string(path) + " " + mode)) return 7;
  std::ofstream(path) << fake.info;
  return 0;
}

int ZELBCFileExist(const char* path) { return access(path, F_OK) == 0 ? 7 : 0; }

int ZELBCFileGetPair(const char* path, ZELBCSzHash** hash) {
  if (fake.Fails("ZELBCFileGetPair", path)) return -7;
  std::istringstream lines(Slurp(path));
  for (std::string line; std::getline(lines, line);) {
    const size_t equals = line.find('=');
    ZELBCSzHashSetValue(hash, line.substr(0, equals).c_str(), line.substr(equals + 1).c_str());
  }
  return 0;
}

// Appends, which is all that a generator can tell of the merge.
int ZELBCFileSetKeys(const char* path, ZELBCSzHash* hash, int flags, const char* format) {
  if (fake.Fails("ZELBCFileSetKeys", std::string(path) + " " + std::to_string(flags) + " " + format))
    return -7;
  std::ofstream file(path, std::ios::app);
  for (const auto& [key, value] : hash->pairs) file << key << " = " << value << "\n";
  return 0;
}

int ZELBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags) {
  fake.Fails("ZELBCFileGetKeyValue",
             std::string(path) + " " + key + " " + std::to_string(size) + " " + std::to_string(flags));
  return Answer(key, value, size);
}

ZELBCSzHash* ZELBCSzHashAlloc(int capacity) {
  return fake.Fails("ZELBCSzHashAlloc", std::to_string(capacity)) ? nullptr : new ZELBCSzHash;
}

const char* ZELBCSzHashGetValue(const ZELBCSzHash* hash, const char* key) {
  if (fake.Fails("ZELBCSzHashGetValue", key)) return nullptr;
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
  return fake.Fails("ZELBCSzListAlloc", std::to_string(capacity)) ? nullptr : new ZELBCSzList{};
}

void ZELBCSzListFree(ZELBCSzList* list) {
  for (int i = 0; i < list->count; ++i) free(list->items[i]);
  delete[] list->items;
  delete list;
}

int ZELBUserEnum(ZELBCSzList** list, int type, const char* domain) {
  if (fake.Fails("ZELBUserEnum", std::to_string(type) + " " + domain)) return -7;
  ZELBCSzListFree(*list);
  const int count = static_cast<int>(fake.users.size());
  *list = new ZELBCSzList{count, 0, new char*[fake.users.size()]};
  for (const std::string& user : fake.users) (*list)->items[(*list)->count++] = strdup(user.c_str());
  return 0;
}

// The table goes into the trace as it is at this moment: the relay's is gone afterwards.
int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4) {
  const bool alone = arg2 == nullptr && arg3 == nullptr && arg4 == nullptr;
  const bool fails = fake.Fails("ZELBCExec", std::string(program) + " " + arg1 + (alone ? "" : " and more"));
  struct stat table = {};
  if (stat(arg1, &table) == 0 && S_ISREG(table.st_mode)) {
    char mode[8];
    std::snprintf(mode, sizeof mode, "%o", table.st_mode & 07777U);
    fake.Record(std::string("  compiles, mode ") + mode + ":");
    fake.trace += Slurp(arg1);
  }
  return fails ? -7 : 0;
}

int ZELBCExecl(const char* program, int options, ...) {
  va_list arguments;
  va_start(arguments, options);
  const std::string joined = Join(arguments);
  va_end(arguments);
  return fake.Fails("ZELBCExecl", std::string(program) + " " + std::to_string(options) + joined) ? 7 : 0;
}

FILE* ZELBCPopen(const char* program, const char* mode, ...) {
  va_list arguments;
  va_start(arguments, mode);
  const std::string joined = Join(arguments);
  va_end(arguments);
  if (fake.Fails("ZELBCPopen", std::string(program) + " " + mode + joined)) return nullptr;
  FILE* output = tmpfile();
  if (joined.find("search") != std::string::npos) fputs(fake.search.c_str(), output);
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
  fake.Record(call);
  return fclose(stream);
}

char* ZELBCStrTrimSpace(char* text, int flags) {
  fake.Record("ZELBCStrTrimSpace " + std::to_string(flags));
  const std::string kept(text);
  const size_t first = kept.find_first_not_of(" \t\r\n");
  const size_t last = kept.find_last_not_of(" \t\r\n");
  text[first == std::string::npos ? 0 : kept.copy(text, last + 1 - first, first)] = '\0';
  return text;
}

unsigned int ZELBCErrGet() { return 0xD900; }

int NUBOLDAPInfoGetFromConf(const char* path, const char* key, char* value, int size) {
  const std::string arguments = std::string(path) + " " + key + " " + std::to_string(size);
  return fake.Fails("NUBOLDAPInfoGetFromConf", arguments) ? 0 : Answer(key, value, size);
}

int NUBOLDAPSecretGet(char* secret, int size) {
  return fake.Fails("NUBOLDAPSecretGet", std::to_string(size)) ? -7 : Answer("secret", secret, size);
}

int NUBOWinsADSJoined() {
  fake.Fails("NUBOWinsADSJoined", "");
  return fake.values.count("joined") != 0 ? 7 : 0;
}

int NUBOWinsGetAuthUser(char* domain, int domainSize, char* user, int userSize, char* password,
                        int passwordSize) {
  if (fake.Fails("NUBOWinsGetAuthUser", std::to_string(domainSize) + " " + std::to_string(userSize) + " " +
                                            std::to_string(passwordSize))) {
    return -7;
  }
  domain[0] = 'x';
  return Answer("user", user, userSize) < 0 ? -1 : Answer("password", password, passwordSize);
}
