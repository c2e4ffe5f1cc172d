#include "preview/mail_check.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>

#include <algorithm>
#include <sstream>

#include "preview/mail_questions.h"

namespace {

constexpr int kTries = 3;

}  // namespace

Values ValuesOf(const std::string& text) {
  Values values;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const size_t sign = line.find(" =");
    if (sign != std::string::npos)
      values[line.substr(0, sign)] = line.substr(std::min(sign + 3, line.size()));
  }
  return values;
}

bool Has(const std::vector<std::string>& words, const std::string& word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool Ask(Observations& seen, const std::string& what, const Dialogue& dialogue) {
  Answer answer = {true, false, ""};
  for (int count = 0; count < kTries && answer.good; ++count) answer = Hold(dialogue);
  seen.push_back({what, answer.good, answer.said});
  return answer.good;
}

std::string OwnAddress() {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return "";
  std::string found;
  for (const ifaddrs* one = all; one != nullptr && found.empty(); one = one->ifa_next) {
    if (one->ifa_addr == nullptr || one->ifa_addr->sa_family != AF_INET || (one->ifa_flags & IFF_UP) == 0)
      continue;
    char text[NI_MAXHOST] = "";
    getnameinfo(one->ifa_addr, sizeof(sockaddr_in), text, sizeof text, nullptr, 0, NI_NUMERICHOST);
    if (std::string(text).rfind("127.", 0) != 0) found = text;
  }
  freeifaddrs(all);
  return found;
}

std::vector<MailObservation> CheckMail(const MailCheck& check) {
  Observations seen;
  if (check.postfix) CheckPostfix(seen, check);
  if (check.dovecot) CheckDovecot(seen);
  return seen;
}
