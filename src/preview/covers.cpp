#include "preview/covers.h"

#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <memory>

#include "mail/dovecot_config.h"
#include "preview/sandbox.h"
#include "system/text.h"

namespace {

struct Person {
  std::string name;
  std::string home;
  uid_t uid;
};

// The people of /etc/passwd, and root.
std::vector<Person> People() {
  std::vector<Person> people;
  const std::unique_ptr<FILE, int (*)(FILE*)> users(std::fopen("/etc/passwd", "re"), std::fclose);
  while (const passwd* user = users ? fgetpwent(users.get()) : nullptr) {
    const bool person = user->pw_uid == 0 || (user->pw_uid >= 1000 && user->pw_uid < 65534);
    if (person) people.push_back({user->pw_name, user->pw_dir, user->pw_uid});
  }
  return people;
}

// Where mail may be in a home.
std::vector<std::string> MailPlaces(const PostfixConfig& postfix) {
  std::vector<std::string> places = {"Maildir", "Mail", "mail", "mbox", "mdbox", "sdbox"};
  const std::string own = postfix.Value("home_mailbox");
  if (!own.empty()) places.push_back(own.substr(0, own.find('/')));
  return places;
}

// The paths in a value, each up to what stands for a user's name.
std::vector<std::string> PathsIn(const std::string& value) {
  std::vector<std::string> paths;
  size_t end = 0;
  for (size_t begin; (begin = value.find_first_not_of(":=", end)) != std::string::npos;) {
    end = value.find_first_of(":=", begin);
    const std::string part = value.substr(begin, end - begin);
    if (part[0] == '/') paths.push_back(part.substr(0, part.find_first_of("% \t")));
  }
  return paths;
}

// The directories and log files, of Dovecot's configuration and Postfix's, outside the package.
void CoverNamed(const PostfixConfig& postfix) {
  std::vector<std::string> folders;
  std::vector<std::string> files = {postfix.Value("maillog_file")};
  for (const char* name :
       {"queue_directory", "data_directory", "mail_spool_directory", "virtual_mailbox_base"}) {
    folders.push_back(postfix.Value(name));
  }
  // "mail_location = maildir:/srv/mail/%u:INDEX=/srv/index/%u", "mail_path = /srv/mail/%{user}"
  for (const DovecotBlock& block : ReadDovecotFiles()) {
    for (const auto& [name, value] : block.settings) {
      const bool log = Contains(name, "log_path");
      if (!log && !StartsWith(name, "mail_") && name != "state_dir") continue;
      for (const std::string& place : PathsIn(value)) {
        log ? files.push_back(place) : folders.push_back(place.substr(0, place.rfind('/')));
      }
    }
  }
  for (const std::string& file : files) CoverFile(file);
  for (const std::string& folder : folders) {
    if (std::count(folder.begin(), folder.end(), '/') > (StartsWith(folder, "/srv") ? 0 : 1))
      Cover(folder, kDeepest);
  }
}

}  // namespace

void CoverData(const PostfixConfig& postfix) {
  for (const char* folder : {"/var/log", "/var/tmp", "/var/lib/dovecot"}) Cover(folder, kDeepest);
  CoverNamed(postfix);
  const std::string spool = postfix.Value("mail_spool_directory");
  for (const Person& person : People()) {
    CopyShape(spool + "/" + person.name);
    if (StartsWith(kEtc, person.home)) continue;
    Cover(person.home, 0);
    for (const std::string& place : MailPlaces(postfix)) CopyShape(person.home + "/" + place);
  }
}

std::vector<std::string> MailUsers(const PostfixConfig& postfix) {
  const std::string own = postfix.Value("home_mailbox");
  std::map<bool, std::string> first;  // by whether the place is not writable
  for (const Person& person : People()) {
    const std::string home = kMachineRoot + person.home;
    struct stat status = {};
    if (person.uid == 0 || stat(home.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) continue;
    bool writable = status.st_uid == person.uid;
    if (!own.empty() && stat((home + "/" + own.substr(0, own.find('/'))).c_str(), &status) == 0)
      writable = writable && status.st_uid == person.uid && S_ISDIR(status.st_mode) == Contains(own, "/");
    first.try_emplace(!writable, person.name);
  }
  std::vector<std::string> users;
  users.reserve(2);
  for (const auto& [strange, user] : first) users.push_back(user);
  return users;
}
