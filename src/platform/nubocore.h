/// The appliance's core library, libnubocore: key/value files, string hashes and lists, running
/// programs, user enumeration. Declarations of what this program uses; the library implements them.
///
/// Results: 0 or more is success and a negative value a failure, except where a call says otherwise.
/// A call that fails may log one line of its own at LOG_ERR; one that succeeds logs nothing.
#pragma once

#include <cstdio>

extern "C" {

/// A text-to-text hash that keeps its keys in the order of their first insertion. Opaque.
struct ZELBCSzHash;

/// An ordered list of NUL-terminated strings, owned by the list.
struct ZELBCSzList {
  int capacity;  ///< items that fit before `items` is grown
  int count;     ///< items held; valid indexes are 0 to count - 1
  char** items;
};

// Key/value files. One pair a line, `key = value`; `#` begins a comment line; a line that begins with
// a blank or a tab continues the value above it. local_platform/README.md gives the format in full.

/// Non-zero when anything stands at `path`, zero when nothing does.
int ZELBCFileExist(const char* path);

/// Adds every pair of the file to `*hash`; of two equal keys the last value wins, at the first one's
/// place. The library may replace the hash, hence its address. Negative when the file cannot be read
/// or holds a line that is no pair.
int ZELBCFileGetPair(const char* path, ZELBCSzHash** hash);

/// Gives every key of `hash` its value in the file at `path`, exactly once: the key's last line is
/// replaced, earlier ones are taken out, a missing key is appended. `format` takes key and value
/// ("%s = %s\n"); `flags` is 0. The file keeps its mode, and on failure its content.
int ZELBCFileSetKeys(const char* path, ZELBCSzHash* hash, int flags, const char* format);

/// Copies the value of `key` into `value` (of `size` bytes), always NUL-terminated; empty when the key
/// or the file is missing, the file is malformed, or the value does not fit. `flags` is 0.
/// Returns the value's length, or -1 when there is none.
int ZELBCFileGetKeyValue(const char* path, const char* key, char* value, int size, int flags);

// String hashes and lists.

/// A new, empty hash with room for `capacity` entries, or null when memory is exhausted. The caller
/// frees it with ZELBCSzHashFree.
ZELBCSzHash* ZELBCSzHashAlloc(int capacity);

/// The value of `key`, owned by the hash and valid until the hash next changes; null when absent.
const char* ZELBCSzHashGetValue(const ZELBCSzHash* hash, const char* key);

/// Stores copies of `key` and `value`, replacing an earlier value of the key. The library may replace
/// the hash, hence its address.
int ZELBCSzHashSetValue(ZELBCSzHash** hash, const char* key, const char* value);

void ZELBCSzHashFree(ZELBCSzHash* hash);

/// A new, empty list with room for `capacity` items, or null when memory is exhausted. The caller
/// frees it with ZELBCSzListFree.
ZELBCSzList* ZELBCSzListAlloc(int capacity);

void ZELBCSzListFree(ZELBCSzList* list);

// Programs. They are run directly, never through a shell, with the path as argument 0; the child gets
// descriptors 0, 1 and 2 alone. What it prints goes to /dev/null, but for the output that
// ZELBCPopen's caller reads; its descriptor 2 is this process's. A program that runs for more than five
// minutes is killed, and the call has failed.

/// Runs `program` with the arguments up to the first null one and waits for it. 0 when it exited with
/// 0; -1 when it could not be run, exited otherwise or was killed.
int ZELBCExec(const char* program, const char* arg1, const char* arg2, const char* arg3, const char* arg4);

/// Runs `program` with the arguments that follow `options`, closed by a null one, and waits for it.
/// `options` is the library's own set of flags. 0 when it exited with 0, any other value on failure.
int ZELBCExecl(const char* program, int options, ...);

/// Starts `program` with the arguments that follow `mode` ("r"), closed by a null one. Returns a
/// stream on its standard output, to be closed with ZELBCPclose, or null when it cannot be started or
/// prints more than 8 MB.
FILE* ZELBCPopen(const char* program, const char* mode, ...);

/// Closes a stream of ZELBCPopen and waits for its program. Its exit status decides nothing.
int ZELBCPclose(FILE* stream);

// The rest.

/// Removes white space, line ends included, from both ends of `text` in place. `flags` is 0.
/// Returns `text`.
char* ZELBCStrTrimSpace(char* text, int flags);

/// The code of the library's last error; 0 when there was none.
unsigned int ZELBCErrGet();

/// Appends the users of an account source to `*list`, in the order and spelling of the system's user
/// database. Type 2 is a Windows domain: `domain` is its short name, and each name reads
/// `DOMAIN\user`. The library may replace the list, hence its address. Negative when the database
/// cannot be read or the domain is empty.
int ZELBUserEnum(ZELBCSzList** list, int type, const char* domain);

}  // extern "C"
