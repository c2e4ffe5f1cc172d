/// The appliance's SDK, libnubosdk: the LDAP client's settings and bind secret. These are declarations of
/// what this program uses; the library defines it.
#pragma once

extern "C" {

/// Copies the value of `key` ("uri", "base", "binddn") of an nslcd.conf(5) file into `value` (of `size`
/// bytes), NUL-terminated. Returns a value above 0 on success; 0 or below when the option is missing or
/// empty, its value does not fit, or the file cannot be read.
int NUBOLDAPInfoGetFromConf(const char* path, const char* key, char* value, int size);

/// Copies the LDAP bind secret into `secret` (of `size` bytes), NUL-terminated. Negative when there is
/// none, it does not fit, or group or others have a right to its file; ZELBCErrGet() then has the reason.
int NUBOLDAPSecretGet(char* secret, int size);

}  // extern "C"
