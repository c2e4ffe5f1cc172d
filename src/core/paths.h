/// Paths that two or more source files use. Any other path stands in the file that uses it, unbroken.
#pragma once

inline constexpr const char* kPostmap = "/var/packages/Brindlecot/target/sbin/postmap";
inline constexpr const char* kPostalias = "/var/packages/Brindlecot/target/sbin/postalias";
inline constexpr const char* kQuotaMemcacheCf = "/var/packages/Brindlecot/target/etc/quota_memcache.cf";
