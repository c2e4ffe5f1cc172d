#include "system/dns.h"

#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>

#include <algorithm>
#include <memory>

namespace {

ns_type TypeOf(const std::string& type) {
  return type == "MX" ? ns_t_mx : type == "SRV" ? ns_t_srv : ns_t_txt;
}

// Strings, each behind its length: RFC 1035, section 3.3.14.
std::string TextOf(const ns_rr& record) {
  const std::string data(reinterpret_cast<const char*>(ns_rr_rdata(record)), ns_rr_rdlen(record));
  std::string text;
  for (size_t at = 0; at < data.size(); at += 1U + static_cast<unsigned char>(data[at])) {
    text += data.substr(at + 1, static_cast<unsigned char>(data[at]));
  }
  return text;
}

// Numbers of two bytes, then a name: one in MX (RFC 1035, section 3.3.9), three in SRV (RFC 2782).
std::string PlaceOf(const ns_msg& message, const ns_rr& record, int numbers) {
  if (ns_rr_rdlen(record) < 2 * numbers) return "";
  const unsigned char* data = ns_rr_rdata(record);
  std::string text;
  for (; numbers > 0; --numbers, data += 2) text += std::to_string(ns_get16(data)) + " ";
  char host[NS_MAXDNAME] = "";
  dn_expand(ns_msg_base(message), ns_msg_end(message), data, host, sizeof host);
  return text + host + ".";
}

}  // namespace

std::optional<std::vector<std::string>> AskDns(const std::string& name, const std::string& type,
                                               std::chrono::seconds patience) {
  struct __res_state state = {};
  if (res_ninit(&state) != 0) return std::nullopt;
  const std::unique_ptr<struct __res_state, decltype(&res_nclose)> owner(&state, res_nclose);
  state.retrans = static_cast<int>(patience.count());
  state.retry = 2;
  unsigned char answer[16384];
  const int size = res_nquery(&state, name.c_str(), ns_c_in, TypeOf(type), answer, sizeof answer);
  std::vector<std::string> values;
  if (size < 0 && (state.res_h_errno == HOST_NOT_FOUND || state.res_h_errno == NO_DATA)) return values;
  ns_msg message;
  if (size < 0 || ns_initparse(answer, std::min<int>(size, sizeof answer), &message) != 0)
    return std::nullopt;
  for (int i = 0; i < ns_msg_count(message, ns_s_an); ++i) {
    ns_rr record;
    if (ns_parserr(&message, ns_s_an, i, &record) != 0 || ns_rr_type(record) != TypeOf(type)) continue;
    values.push_back(type == "TXT" ? TextOf(record) : PlaceOf(message, record, type == "MX" ? 1 : 3));
  }
  return values;
}
