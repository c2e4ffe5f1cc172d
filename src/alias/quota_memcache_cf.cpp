#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateQuotaMemcacheMap() {
  char temp[] = "/var/packages/Brindlecot/target/etc/quota_memcache.cfXXXXXX";
  if (!Written(MakeTempFile(temp) == 0, temp)) return -1;
  std::ofstream quotaMemcacheCf(temp);
  if (!Written(quotaMemcacheCf.is_open(), temp)) return -1;
  quotaMemcacheCf << "memcache = inet:localhost:11211" << EndLine;
  quotaMemcacheCf << "ttl = 86400" << EndLine;  // seconds: a day
  if (!WrittenWhole(quotaMemcacheCf, temp)) return -1;
  return InstallFile(temp, kQuotaMemcacheCf);
}
