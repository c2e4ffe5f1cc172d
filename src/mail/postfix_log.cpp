#include "mail/postfix_log.h"

#include <algorithm>
#include <cctype>

#include "system/text.h"

namespace {

constexpr size_t kTime = 15;  // "Nov 26 12:00:00"

// What follows the time, and the <number> before it.
std::string AfterTime(const std::string& line) {
  size_t begin = 0;
  if (line[0] == '<') begin = line.find('>') + 1;
  const bool iso = std::isdigit(static_cast<unsigned char>(line[begin])) != 0;
  const size_t end = iso ? line.find(' ', begin) : begin + kTime;
  return end >= line.size() || line[end] != ' ' ? "" : line.substr(end + 1);
}

// "4XqZr53zKlz9vBN" or "0A1B2C3D4E", and not "warning" or "NOQUEUE".
bool IsQueueId(const std::string& word) {
  const auto is = [&](int (*kind)(int)) {
    return [=](char c) { return kind(static_cast<unsigned char>(c)) != 0; };
  };
  return std::all_of(word.begin(), word.end(), is(std::isalnum)) &&
         !std::all_of(word.begin(), word.end(), is(std::islower)) && word != "NOQUEUE";
}

// The place in "NAME[ADDRESS]:PORT" or "NAME[PATH]", which begins somewhere in the text.
Peer BracketedIn(const std::string& text) {
  const size_t open = text.find('[');
  const size_t close = text.find(']', open);
  if (close == std::string::npos) return {};
  const std::string inner = text.substr(open + 1, close - open - 1);
  if (Contains(inner, "/")) return {"", "", "", inner};
  Peer peer = {"", inner, "", ""};
  if (text.compare(close + 1, 1, ":") == 0)
    peer.port = text.substr(close + 2, text.find_first_not_of("0123456789", close + 2) - close - 2);
  return peer;
}

// "to=<a>, orig_to=<b>, relay=c[d]:25, delay=1, ..., status=sent (reason)"
void ReadDelivery(PostfixLogLine& line) {
  const std::string& said = line.said;
  for (size_t at = 0, sign; (sign = said.find('=', at)) != std::string::npos;) {
    const std::string name = said.substr(at, sign - at);
    const bool address = said.compare(sign + 1, 1, "<") == 0;
    const size_t begin = address ? sign + 2 : sign + 1;
    const size_t end = said.find(address ? ">" : name == "status" ? " " : ",", begin);
    if (end == std::string::npos) return;
    const std::string value = said.substr(begin, end - begin);
    if (name == "to") line.to = value;
    if (name == "orig_to") line.originalTo = value;
    if (name == "relay") line.relay = BracketedIn(value);
    if (name == "status") {
      line.reason = said.substr(end + 1);
      const size_t connect = line.reason.find("connect to ");
      if (connect != std::string::npos) line.unreachable = BracketedIn(line.reason.substr(connect));
      line.status = value;
      line.event = MailEvent::kDelivery;
      return;
    }
    at = said.find_first_not_of(">, ", end);
  }
}

}  // namespace

std::optional<PostfixLogLine> ParsePostfixLogLine(const std::string& line) {
  std::string rest = AfterTime(line);
  size_t end = rest.find(' ');
  if (end == std::string::npos || end == 0) return {};
  if (rest[end - 1] != ':') rest.erase(0, end + 1);  // the host
  end = rest.find(": ");
  if (end == std::string::npos || rest.find(' ') < end) return {};
  PostfixLogLine result = {rest.substr(0, std::min(rest.find('['), end)), rest.substr(end + 2)};
  result.said = result.text;
  const size_t colon = result.text.find(": ");
  if (colon != std::string::npos && IsQueueId(result.text.substr(0, colon))) {
    result.queueId = result.text.substr(0, colon);
    result.said = result.text.substr(colon + 2);
  }
  const auto says = [&](const char* begin) { return StartsWith(result.said, begin); };
  if (says("fatal: ") && result.queueId.empty()) result.event = MailEvent::kFatal;
  if (result.queueId.empty()) return result;
  if (says("message-id=")) {
    result.event = MailEvent::kMessageId;
    result.messageId = result.said.substr(result.said.find('=') + 1);
  }
  if (says("hold: ")) result.event = MailEvent::kHeld;
  if (says("milter-reject: ")) result.event = MailEvent::kRejected;
  if (says("to=<")) ReadDelivery(result);
  if (says("from=<") && Contains(result.said, " (queue active)")) result.event = MailEvent::kActive;
  if (result.said == "removed") result.event = MailEvent::kRemoved;
  return result;
}
