#include "checks/mail_dialogue.h"

#include <curl/curl.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "system/text.h"

namespace {

constexpr long kAnswerSeconds = 5;
constexpr long kDeliverySeconds = 20;

size_t KeepLine(char* data, size_t size, size_t count, void* lines) {
  std::string line(data, size * count);
  line.erase(line.find_last_not_of("\r\n") + 1);
  static_cast<std::vector<std::string>*>(lines)->push_back(line);
  return size * count;
}

size_t DropOutput(char*, size_t size, size_t count, void*) { return size * count; }

size_t BreakOff(char*, size_t, size_t, void*) { return CURL_READFUNC_ABORT; }

// Lets the dialogue come from an address that is routed to this machine and stands on no interface: for IPv4
// the route is enough.
int AllowForeignSource(void*, curl_socket_t file, curlsocktype) {
  const int yes = 1;
  setsockopt(file, IPPROTO_IPV6, IPV6_FREEBIND, &yes, sizeof yes);  // fails for IPv4
  return CURL_SOCKOPT_OK;
}

// RFC 4954, section 6; RFC 5530, section 3; RFC 3206, section 4.
bool IsDenial(const std::string& line) {
  return StartsWith(line, "535 ") || Contains(line, " NO [AUTHENTICATIONFAILED]") ||
         StartsWith(line, "-ERR [AUTH]");
}

// The first refusal, or else the last line; with libcurl's reason if it has one.
std::string Said(const std::vector<std::string>& lines, const char* reason) {
  for (const std::string& line : lines) {
    if (ReplyCode(line) >= 400) return line;
  }
  if (lines.empty()) return reason;
  if (Contains(lines.back(), " NO [") || StartsWith(lines.back(), "-ERR")) return lines.back();
  return *reason == '\0' ? lines.back() : lines.back() + " (" + reason + ")";
}

}  // namespace

int ReplyCode(const std::string& line) {
  const size_t digits = std::min(line.find_first_not_of("0123456789"), line.size());
  return digits == 3 && line[0] >= '2' && line[0] <= '5' ? std::stoi(line) : 0;
}

Answer Converse(const Dialogue& dialogue) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> owner(curl_easy_init(), curl_easy_cleanup);
  CURL* curl = owner.get();
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> recipients(
      curl_slist_append(nullptr, dialogue.to.c_str()), curl_slist_free_all);
  if (curl == nullptr || !recipients) return {false, false, false, "out of memory"};

  std::vector<std::string> lines;
  char error[CURL_ERROR_SIZE] = "";
  const bool mail = !dialogue.to.empty();
  curl_easy_setopt(curl, CURLOPT_URL, dialogue.url.c_str());
  curl_easy_setopt(curl, CURLOPT_PROXY, "");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, mail ? kDeliverySeconds : kAnswerSeconds);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, error);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, KeepLine);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &lines);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, DropOutput);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 0L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 0L);
  curl_easy_setopt(curl, CURLOPT_USE_SSL, dialogue.startTls ? CURLUSESSL_ALL : CURLUSESSL_NONE);
  if (!dialogue.from.empty()) {
    curl_easy_setopt(curl, CURLOPT_INTERFACE, ("host!" + dialogue.from).c_str());
    curl_easy_setopt(curl, CURLOPT_SOCKOPTFUNCTION, AllowForeignSource);
  }
  if (!dialogue.user.empty()) {
    curl_easy_setopt(curl, CURLOPT_USERNAME, dialogue.user.c_str());
    curl_easy_setopt(curl, CURLOPT_PASSWORD, "no password of anybody");
    curl_easy_setopt(curl, CURLOPT_LOGIN_OPTIONS, "AUTH=PLAIN");
  }
  if (mail) {
    curl_easy_setopt(curl, CURLOPT_MAIL_FROM, dialogue.sender.c_str());
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, recipients.get());
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, BreakOff);
  } else {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, dialogue.command);
  }
  const CURLcode result = curl_easy_perform(curl);
  // It is broken off after the server has agreed to DATA.
  const bool good = result == (mail ? CURLE_ABORTED_BY_CALLBACK : CURLE_OK);
  if (!good && *error == '\0') std::strncpy(error, curl_easy_strerror(result), sizeof error - 1);
  return {good, result == CURLE_COULDNT_CONNECT, std::any_of(lines.begin(), lines.end(), IsDenial),
          Said(lines, good ? "" : error)};
}
