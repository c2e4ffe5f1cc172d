// The least that the table of a domain's users can cost: one walk over the user database, and one write for
// each line.
#define _GNU_SOURCE
#include <pwd.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

int main(void) {
  const char* const target = "/var/packages/Brindlecot/target/etc/domain-aliases";
  char temp[] = "/var/packages/Brindlecot/target/etc/domain-aliasesXXXXXX";
  char* postalias[] = {"/var/packages/Brindlecot/target/sbin/postalias", (char*)target, NULL};
  char line[1024];  // two names of the benchmark's users fit
  int status = -1;
  pid_t program;
  const int file = mkstemp(temp);
  if (file < 0) return 1;
  setpwent();
  for (const struct passwd* user; (user = getpwent()) != NULL;) {
    if (strncasecmp(user->pw_name, "CORP\\", 5) != 0) continue;
    const char* const name = user->pw_name + 5;
    const ssize_t length = stpcpy(stpcpy(stpcpy(stpcpy(line, name), " : CORP\\\\"), name), "\n") - line;
    if (write(file, line, (size_t)length) != length) return 1;
  }
  endpwent();
  if (fsync(file) != 0 || close(file) != 0 || chmod(temp, 0644) != 0 || rename(temp, target) != 0) return 1;
  return posix_spawn(&program, postalias[0], NULL, NULL, postalias, environ) != 0 ||
         waitpid(program, &status, 0) != program || status != 0;
}
