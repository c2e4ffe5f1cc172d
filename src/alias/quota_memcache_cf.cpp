#include "core/config_generator.h"
#include "core/paths.h"

int ConfigGenerator::GenerateQuotaMemcacheMap() {
  char temp[] = "/var/packages/Brindlecot/target/etc/quota_memcache.cfXXXXXX";
  if (!Written(MakeTempFile(temp) == 0, temp)) return -1;
  std::ofstream quotaMemcacheCf(temp);
  quotaMemcacheCf << "memcache = inet:localhost:11211" << std::endl;
  quotaMemcacheCf << "ttl = 86400" << std::endl;  // seconds: a day
  CloseStream(quotaMemcacheCf);
  if (!Written(quotaMemcacheCf.good(), temp)) return -1;
  return InstallFile(temp, kQuotaMemcacheCf);
}
