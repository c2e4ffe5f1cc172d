#include <pwd.h>
#include <strings.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string>

#include "libnubocore/string_list.h"
#include "platform/nubocore.h"

namespace {

constexpr int kWindowsDomain = 2;

/// Tells whether `error`, left by the database after its last user, means that users are missing. What
/// its sources leave at a plain end varies (ENOENT, ECONNREFUSED, ...), so an error that getpwent(3) does
/// not document counts only when there was no user at all.
bool IsReadError(int error, bool anyUser) {
  constexpr int kErrors[] = {EAGAIN, EINTR, EIO, EMFILE, ENFILE, ENOMEM, ERANGE};
  const bool documented = std::find(std::begin(kErrors), std::end(kErrors), error) != std::end(kErrors);
  return documented || (error != 0 && !anyUser);
}

/// Reads the database: counts its users in `count` and appends those whose names begin with `prefix` to
/// `list`, unless that is null. 0, or an error number.
int ReadUsers(ZELBCSzList* list, const std::string& prefix, std::size_t& count) {
  count = 0;
  errno = 0;
  setpwent();
  const int openError = errno;
  errno = 0;
  while (const passwd* user = getpwent()) {
    ++count;
    if (list != nullptr && strncasecmp(user->pw_name, prefix.c_str(), prefix.size()) == 0 &&
        !AppendToList(*list, user->pw_name)) {
      return ENOMEM;
    }
    errno = 0;
  }
  const int readError = errno;
  if (IsReadError(openError, count > 0)) {
    return openError;
  }
  return IsReadError(readError, count > 0) ? readError : 0;
}

/// Appends the users whose names begin with `prefix`. 0, or an error number.
int AppendUsers(ZELBCSzList& list, const std::string& prefix) {
  // When a source of the database fails half-way, getpwent(3) goes on to the next one and may end without
  // an error. A second look shows that users were missing from the first.
  std::size_t first = 0;
  std::size_t second = 0;
  const int error = ReadUsers(&list, prefix, first);
  if (error != 0) {
    return error;
  }
  const int secondError = ReadUsers(nullptr, prefix, second);
  return secondError == 0 && first != second ? EIO : secondError;
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
