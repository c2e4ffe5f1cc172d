#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateQuotaMemcacheMap() {
  char temp[] = "/var/packages/Brindlecot/target/etc/quota_memcache.cfXXXXXX";
  if (MakeTempFileOrLog(temp) < 0) return -1;
  std::ofstream quotaMemcacheCf;
  if (OpenOrLog(quotaMemcacheCf, temp) < 0) return -1;
  quotaMemcacheCf << "memcache = inet:localhost:11211" << EndLine;
  quotaMemcacheCf << "ttl = 86400" << EndLine;  // seconds: a day
  if (CloseOrRemove(quotaMemcacheCf, temp) < 0) return -1;
  return InstallFile(temp, kQuotaMemcacheCf);
}
