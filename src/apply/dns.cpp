#include "system/dns.h"

#include <algorithm>
#include <cctype>
#include <functional>
#include <iostream>

#include "apply/commands.h"
#include "change/basics.h"
#include "core/config_generator.h"
#include "mail/certificate.h"
#include "system/address.h"

namespace {

constexpr const char* kKey = "/var/packages/Brindlecot/etc/dkim.key/dkim.private";
constexpr size_t kStringSize = 255;  // of one character-string: RFC 1035, section 3.3

struct Record {
  std::string name;
  std::string type;
  std::string value;                // of a TXT record: its text in one piece
  std::vector<std::string> needed;  // words of it without which a record is of no use
  bool elsewhere = false;           // or an "include:" of the provider that sends the mail
};

// The hosts that send mail: this machine, or the relay (RFC 7208).
Record SpfRecord(const std::string& domain, const std::string& relay) {
  if (relay.empty()) return {domain, "TXT", "v=spf1 mx -all", {"mx"}};
  if (Network::Parse(relay)) {
    const std::string sender = (IsSix(relay) ? "ip6:" : "ip4:") + relay;
    return {domain, "TXT", "v=spf1 mx " + sender + " -all", {"mx", sender}};
  }
  const std::string sender = "a:" + relay;
  return {domain, "TXT", "v=spf1 mx " + sender + " ~all", {"mx", sender}, true};
}

// Where mail programs find the servers: RFC 6186; "submissions" is of RFC 8314, section 5.1.
void AddServices(std::vector<Record>& records, const std::string& domain, const std::string& host,
                 Postfix& smtp, ImapPop3& imapPop3) {
  const auto add = [&](bool on, const std::string& service, int port) {
    const std::string place = std::to_string(port) + " " + host + ".";
    if (on) records.push_back({"_" + service + "._tcp." + domain, "SRV", "0 1 " + place, {place}});
  };
  add(GetBool(smtp, "smtp_ssl_enabled"), "submissions", GetInt(smtp, "smtps_port"));
  add(GetBool(smtp, "smtp_tls_enabled"), "submission", GetInt(smtp, "smtp_tls_port"));
  add(GetBool(imapPop3, "imaps_enabled"), "imaps", 993);
  add(GetBool(imapPop3, "imap_enabled"), "imap", 143);
  add(GetBool(imapPop3, "pop3s_enabled"), "pop3s", 995);
  add(GetBool(imapPop3, "pop3_enabled"), "pop3", 110);
}

// A server of that name as Postfix takes it: in brackets, it is not looked up as a mail domain.
std::string RelayName(Postfix& smtp) {
  if (!GetBool(smtp, "smtp_relay_enabled")) return "";
  const std::string server = GetString(smtp, "smtp_relay_server");
  return server[0] == '[' ? server.substr(1, server.find(']') - 1) : server;
}

std::vector<Record> Records(Postfix& smtp, ImapPop3& imapPop3, const std::string& relay) {
  const std::string host = GetString(smtp, "smtp_hostname");
  if (host.empty()) throw Fault("smtp_hostname is empty: the records need the name of this machine");
  const bool sign = GetBool(smtp, "enable_dkim");
  const std::string selector = GetString(smtp, "dkim_selector");
  const std::string key = sign ? PublicKey(kKey) : "";
  if (sign && key.empty()) throw Fault(std::string(kKey) + ": expected a private key without a password");
  std::list<std::string> domains = smtp.GetAdditionDomain();
  domains.push_front(host);
  std::vector<Record> records;
  for (const std::string& domain : domains) {
    records.push_back({domain, "MX", "10 " + host + ".", {host + "."}});
    records.push_back(SpfRecord(domain, relay));
    if (sign) {
      records.push_back(
          {selector + "._domainkey." + domain, "TXT", "v=DKIM1; k=rsa; p=" + key, {"p=" + key}});
    }
    const std::string postmaster = "rua=mailto:postmaster@" + domain;
    records.push_back(
        {"_dmarc." + domain, "TXT", "v=DMARC1; p=none; " + postmaster, {"v=DMARC1"}});  // RFC 7489
    if (GetBool(smtp, "smtp_ssl_enabled")) {  // servers are offered TLS: RFC 8460
      records.push_back({"_smtp._tls." + domain, "TXT", "v=TLSRPTv1; " + postmaster, {"v=TLSRPTv1"}});
    }
    AddServices(records, domain, host, smtp, imapPop3);
  }
  return records;
}

void Print(const Record& record) {
  std::cout << record.name << ". IN " << record.type;
  if (record.type != "TXT") {
    std::cout << " " << record.value;
  } else {
    for (size_t begin = 0; begin < record.value.size(); begin += kStringSize) {
      std::cout << " \"" << record.value.substr(begin, kStringSize) << '"';
    }
  }
  std::cout << '\n';
}

// In small letters, with one blank between the parts and around them.
std::string Comparable(const std::string& value) {
  std::string text = " ";
  for (const unsigned char c : value + ' ') {
    const bool part = c != ' ' && c != ';';
    if (part || text.back() != ' ') text += part ? static_cast<char>(std::tolower(c)) : ' ';
  }
  return text;
}

// The values in DNS that may be meant for this record. Throws Fault when there is no answer.
std::vector<std::string> Ask(const Record& record) {
  auto values = AskDns(record.name, record.type, std::chrono::seconds(5));
  if (!values) throw Fault(record.name + ": no name server answers");
  // A name has texts of all kinds; those below it have one.
  if (StartsWith(record.value, "v=spf1")) {
    values->erase(std::remove_if(values->begin(), values->end(),
                                 [](const auto& one) { return !StartsWith(Comparable(one), " v=spf1 "); }),
                  values->end());
  }
  return *values;
}

// True when DNS has a record that does the work of this one; it need not be the same.
bool Compare(const Record& record) {
  const std::vector<std::string> values = Ask(record);
  const auto fits = [&](const std::string& value) {
    const std::string text = Comparable(value);
    return (record.elsewhere && Contains(text, " include:")) ||
           std::all_of(record.needed.begin(), record.needed.end(),
                       [&](const std::string& part) { return Contains(text, Comparable(part)); });
  };
  const bool many = record.type != "TXT";  // of texts, two are as good as none
  const bool good = (many || values.size() == 1) && std::any_of(values.begin(), values.end(), fits);
  std::cout << (good ? "good     " : values.empty() ? "MISSING  " : "DIFFERS  ");
  Print(record);
  if (!good) {
    for (const std::string& value : values) std::cout << "         in DNS: " << value << '\n';
  }
  return good;
}

}  // namespace

int Dns(const Request& request) {
  Postfix smtp;
  ImapPop3 imapPop3;
  if (smtp.LoadSettings() < 0 || imapPop3.LoadSettings() < 0) {
    throw Fault("the settings cannot be read, see the system log");
  }
  const std::string relay = RelayName(smtp);
  const std::vector<Record> records = Records(smtp, imapPop3, relay);
  if (!request.arguments.empty()) {
    // All of them are asked, so that each is shown.
    return std::count_if(records.begin(), records.end(), std::not_fn(Compare)) == 0 ? 0 : 1;
  }
  if (std::any_of(records.begin(), records.end(), [](const Record& record) { return record.elsewhere; })) {
    std::cout << "; Other hosts than " << relay
              << " may send its mail: put the include: that its provider names in"
              << "\n; place of a:" << relay
              << ", and -all in place of ~all once you know that these are all.\n";
  }
  for (const Record& record : records) Print(record);
  std::cout << std::flush;
  return 0;
}
