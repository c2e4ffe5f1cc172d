// What `net ads info` and `net ads search` print, with a line "--" between them.
#include <cstring>

#include "core/config_generator.h"
#include "fuzz.h"
#include "libnubocore/run_program.h"
#include "platform/nubocore.h"

static std::vector<std::string> outputs;
static std::size_t started;

// In the place of programs:
std::string RunProgram(const std::vector<const char*>& /*arguments*/) { return "not run"; }
int ZELBCExec(const char*, const char*, const char*, const char*, const char*) { return -1; }
int ZELBCExecl(const char*, int, ...) { return -1; }
int ZELBCPclose(FILE* stream) { return std::fclose(stream); }
FILE* ZELBCPopen(const char* /*program*/, const char* mode, ...) {
  std::string& output = outputs.at(started++ % outputs.size());
  return output.empty() ? std::fopen("/dev/null", mode) : fmemopen(output.data(), output.size(), mode);
}

void Try(const std::string& input) {
  const char* const target = "/var/packages/Brindlecot/target/etc/domain-aliases.cf";
  const char* const parameters[] = {"server_host=", "server_port=", "search_base=", "bind_dn="};
  Put("/usr/nubo/etc/wins.secret", "domain = D\nuser = u\npassword = p\n");
  Put(target, "old");
  outputs = Split(input, "\n--\n");
  started = 0;
  const int result = ConfigGenerator().GenerateDomainLdapAliasMap();
  const auto lines = Split(Slurp(target), "\n");
  assert(lines.size() == (result == 0 ? 9 : 1));  // the eight lines, or the old table
  for (std::size_t i = 3; result == 0 && i < 7; ++i) {
    assert(lines[i].rfind(parameters[i - 3], 0) == 0);
    const std::string value = lines[i].substr(std::strlen(parameters[i - 3]));
    const std::string end =
        value.substr(value.rfind('=') + 1);  // a name may hold one, which then divides the pair
    assert(!value.empty() && outputs[i < 6 ? 0 : 1 % outputs.size()].find(end) != std::string::npos);
  }
}
