/// The appliance's core library, libnubocore: key/value files, string hashes and lists, running
/// programs, listing users. These are declarations of what this program uses; the library defines it.
///
/// Results: 0 or more is success and a negative value a failure, except where a call says otherwise.
/// A call that fails may log one line of its own at LOG_ERR; one that succeeds logs nothing.
#pragma once

#include <cstdio>

extern "C" {

/// A hash from text to text that keeps its keys in the order of their first insertion. Only the library knows
/// what is in it.
struct ZELBCSzHash;

/// An ordered list of NUL-terminated strings, owned by the list.
struct ZELBCSzList {
  int capacity;  ///< number of items that fit into `items` as it is
  int count;     ///< number of items held; valid indexes are 0 to count - 1
  char** items;
};

// Key/value files. One pair a line, `key = value`; `#` begins a comment line; a line that begins with
// a blank or a tab continues the value above it. local_platform/README.md gives the format in full.

/// Non-zero when anything stands at `path`, zero when nothing does.
int ZELBCFileExist(const char* path);

/// Adds every pair of the file to `*hash`. Of two equal keys the last value counts, in the first one's place.
/// `hash` is an address because the library may replace the hash. Negative when the file cannot be read or
/// holds a line that is no pair.
int ZELBCFileGetPair(const char* path, ZELBCSzHash** hash);

/// Gives every key of `hash` its value in the file at `path`, exactly once: the key's last line is
/// replaced, earlier ones are taken out, a missing key is appended. `format` takes key and value
/// ("%s = %s\n"); `flags` is 0. The file keeps its mode, and on failure its content.
int ZELBCFileSetKeys(const char* path, ZELBCSzHash* hash, int flags, const char* format);

/// Copies the value of `key` into `value` (of `size` bytes) and returns its length. Returns -1, with an empty
/// `value`, when the key or the file is missing, the file is malformed, or the value does not fit. `value` is
/// always NUL-terminated. `flags` is 0.
int ZELBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags);

// String hashes and lists.

/// A new, empty hash with room for `capacity` entries, or null when memory is exhausted. The caller
/// frees it with ZELBCSzHashFree.
ZELBCSzHash* ZELBCSzHashAlloc(int capacity);

/// The value of `key`, owned by the hash and valid until the hash next changes; null when absent.
const char* ZELBCSzHashGetValue(const ZELBCSzHash* hash, const char* key);

/// Stores copies of `key` and `value`, replacing an earlier value of the key. `hash` is an address because
/// the library may replace the hash.
int ZELBCSzHashSetValue(ZELBCSzHash** hash, const char* key, const char* value);

void ZELBCSzHashFree(ZELBCSzHash* hash);

/// A new, empty list with room for `capacity` items, or null when memory is exhausted. The caller
/// frees it with ZELBCSzListFree.
ZELBCSzList* ZELBCSzListAlloc(int capacity);

void ZELBCSzListFree(ZELBCSzList* list);

// Programs. They are run directly, never through a shell, with the path as argument 0. The child gets only
// the descriptors 0, 1 and 2. Its output goes to /dev/null, except for ZELBCPopen; its descriptor 2 is that
// of this process. A program that runs for more than five minutes is killed, and the call fails.

/// Runs `program` with the arguments before the first null one and waits for it. 0 when it exited with 0; -1
/// when it could not be run, exited with another status or was killed.
int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4);

/// Runs `program` with the arguments after `options`, the last of which is null, and waits for it. `options`
/// are flags of the library. 0 when it exited with 0, any other value on failure.
int ZELBCExecl(const char* program, int options, ...);

/// Runs `program` with the arguments after `mode` ("r"), the last of which is null. Returns a stream with its
/// standard output, to be closed with ZELBCPclose, or null when it cannot be started or prints more than 8
/// MB.
FILE* ZELBCPopen(const char* program, const char* mode, ...);

/// Closes a stream of ZELBCPopen and waits for its program. The program's exit status does not matter.
int ZELBCPclose(FILE* stream);

// Other calls.

/// Removes white space, line ends included, from both ends of `text` in place. `flags` is 0.
/// Returns `text`.
char* ZELBCStrTrimSpace(char* text, int flags);

/// The code of the library's last error, or 0.
unsigned int ZELBCErrGet();

/// Appends the users of an account source to `*list`, in the order and spelling of the system's user
/// database. Type 2 is a Windows domain: `domain` is its short name, and each name reads
/// `DOMAIN\user`. `list` is an address because the library may replace the list. Negative when the database
/// cannot be read or the domain is empty.
int ZELBUserEnum(ZELBCSzList** list, int type, const char* domain);

}  // extern "C"
