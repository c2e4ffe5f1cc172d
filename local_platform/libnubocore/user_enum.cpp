#include <pwd.h>
#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>

#include "libnubocore/strings.h"
#include "platform/nubocore.h"

namespace {

constexpr int kWindowsDomain = 2;

// True when `error`, the error number after the last user, means that users are missing. Some sources of the
// database set an error number at a normal end too (ENOENT, ECONNREFUSED, ...). So a number that getpwent(3)
// does not document counts only when there was no user at all.
bool IsReadError(int error, bool anyUser) {
  constexpr int kErrors[] = {EAGAIN, EINTR, EIO, EMFILE, ENFILE, ENOMEM, ERANGE};
  const bool documented = std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
  return documented || (error != 0 && !anyUser);
}

// Appends the users whose names begin with `prefix`. 0, or an error number.
int AppendUsers(ZELBCSzList& list, const std::string& prefix) {
  const int first = list.count;
  bool anyUser = false;
  errno = 0;
  setpwent();
  const int openError = errno;
  errno = 0;
  while (const passwd* user = getpwent()) {
    anyUser = true;
    if (strncasecmp(user->pw_name, prefix.c_str(), prefix.size()) == 0 &&
        !AppendToList(list, user->pw_name)) {
      return ENOMEM;
    }
    errno = 0;
  }
  const int readError = errno;
  if (IsReadError(openError, anyUser)) return openError;
  if (IsReadError(readError, anyUser)) return readError;
  // When a source of the database stops answering half-way, getpwent(3) goes on with the next source and may
  // end without an error. But then the users of that source can no longer be looked up.
  return list.count > first && getpwnam(list.items[first]) == nullptr ? EIO : 0;
}

}  // namespace

int ZELBUserEnum(ZELBCSzList** list, int type, const char* domain) {
  if (type != kWindowsDomain || domain == nullptr || *domain == '\0') {
    syslog(LOG_ERR, "users of type %d can only be listed for a Windows domain with a short name", type);
    return -1;
  }
  const int error = AppendUsers(**list, std::string(domain) + '\\');
  endpwent();
  if (error != 0) {
    syslog(LOG_ERR, "cannot read the user database: %s", std::strerror(error));
    return -1;
  }
  return 0;
}
