#include "mail_check/mail_dialogue.h"

#include <curl/curl.h>

#include <cctype>
#include <memory>
#include <vector>

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

bool IsRefusal(const std::string& line) {  // RFC 5321, section 4.2.1
  return line.size() > 3 && (line[0] == '4' || line[0] == '5') && std::isdigit(line[1]) != 0 &&
         std::isdigit(line[2]) != 0;
}

// The first refusal, or else the last line; with libcurl's reason if it has one.
std::string Said(const std::vector<std::string>& lines, const char* reason) {
  for (const std::string& line : lines) {
    if (IsRefusal(line)) return line;
  }
  if (lines.empty()) return reason;
  return *reason == '\0' ? lines.back() : lines.back() + " (" + reason + ")";
}

}  // namespace

Answer Converse(const Dialogue& dialogue) {
  const std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> owner(curl_easy_init(), curl_easy_cleanup);
  CURL* curl = owner.get();
  const std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> recipients(
      curl_slist_append(nullptr, dialogue.to.c_str()), curl_slist_free_all);
  if (curl == nullptr || !recipients) return {false, false, "out of memory"};

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
  if (!dialogue.from.empty()) curl_easy_setopt(curl, CURLOPT_INTERFACE, ("host!" + dialogue.from).c_str());
  if (mail) {
    curl_easy_setopt(curl, CURLOPT_MAIL_RCPT, recipients.get());
    curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(curl, CURLOPT_READFUNCTION, BreakOff);
  } else {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, dialogue.command);
  }
  const CURLcode result = curl_easy_perform(curl);
  // It is broken off after the server has agreed to DATA.
  const bool good = result == (mail ? CURLE_ABORTED_BY_CALLBACK : CURLE_OK);
  if (!good && *error == '\0')
    return {false, result == CURLE_COULDNT_CONNECT, Said(lines, curl_easy_strerror(result))};
  return {good, result == CURLE_COULDNT_CONNECT, Said(lines, good ? "" : error)};
}
