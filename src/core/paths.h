/// Paths that two or more sources name. A path that one file uses stands in that file, whole.
#pragma once

inline constexpr const char* kEtc = "/var/packages/Brindlecot/target/etc";  // the generators write below it
inline constexpr const char* kPostmap = "/var/packages/Brindlecot/target/sbin/postmap";
inline constexpr const char* kPostalias = "/var/packages/Brindlecot/target/sbin/postalias";
inline constexpr const char* kQuotaMemcacheCf = "/var/packages/Brindlecot/target/etc/quota_memcache.cf";
