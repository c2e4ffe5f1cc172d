#include <json/json.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <iomanip>
#include <iostream>
#include <sstream>

#include "apply/commands.h"
#include "change/basics.h"
#include "change/change.h"
#include "change/daemons.h"
#include "change/state.h"
#include "mail/certificate.h"
#include "mail/daemons.h"
#include "mail/listeners.h"
#include "mail/versions.h"
#include "system/address.h"

namespace {

constexpr int kNotAsConfirmed = 5;

// Adds each listener whose place is another program's or another user's, or a daemon's that reads other
// files.
void AddForeignOwners(CheckResults& mail) {
  std::set<std::string> seen;
  for (const CheckResult& asked : CheckResults(mail)) {
    if (!seen.insert(asked.place).second || asked.place.empty()) continue;
    const size_t colon = asked.place.rfind(':');
    for (const TcpListener& listener : TcpListeners()) {
      const bool there = listener.port == asked.place.substr(colon + 1) &&
                         (listener.address == "0.0.0.0" || listener.address == "::" ||
                          InUrl(listener.address) == asked.place.substr(0, colon));
      const Daemon& daemon = DaemonOf(asked.question.daemon);
      if (!there || (Belongs(listener, daemon) && IsHeldBy(listener, daemon))) continue;
      std::string detail = "is of user " + std::to_string(listener.uid);
      for (const Owner& owner : OwnersOf(listener)) {
        detail += ", process " + std::to_string(owner.pid) + " (" + owner.program + ") of user " +
                  std::to_string(owner.uid);
      }
      Question question = asked.question;
      question.topic = Topic::kProgram;
      question.to = listener.address;
      mail.push_back(Judge(
          question, false, {detail},
          "Mail and passwords go to another program than the " + daemon.name + " that reads these files."));
    }
  }
}

// Adds each TLS listener's certificate, which may not be the one in its file any more.
void AddCertificates(CheckResults& mail, Json::Value& shown) {
  std::vector<Certificate> certificates;
  try {
    certificates = Certificates(ReadPostfix(kEtc));
  } catch (const Fault&) {  // mail does not work, which is said already
  }
  for (const CheckResult& listener : CheckResults(mail)) {
    if (!listener.question.tls || listener.place.empty() || listener.Bad()) continue;
    const std::string& daemon = DaemonOf(listener.question.daemon).name;
    Question question = listener.question;
    question.topic = Topic::kCertificate;
    question.to = listener.startTls;
    const std::string fingerprint = ServedFingerprint(listener.place, listener.startTls);
    const auto file = std::find_if(certificates.begin(), certificates.end(), [&](const Certificate& one) {
      return one.fingerprint == fingerprint && one.readers.count(question.daemon) != 0;
    });
    if (file == certificates.end()) {
      mail.push_back(Judge(question, false, {"is not the one in its file: restart " + daemon}));
      continue;
    }
    const bool good = file->fault.empty();
    const std::string days = std::to_string(file->days) + " days left";
    mail.push_back({question,
                    !file->usable ? Grade::kBad
                    : good        ? Grade::kGood
                                  : Grade::kWarning,
                    {file->names + ", " + (good ? days : file->fault + ": " + file->file)}});
    Json::Value one;
    one["listener"] = Name(listener.question);
    one["names"] = file->names;
    one["days"] = static_cast<Json::Int64>(file->days);
    shown.append(one);
  }
}

// How many messages wait, and since when the oldest does: postqueue(1), "JSON object format".
Json::Value Queue() {
  Json::Value queue;
  queue["messages"] = 0;
  for (const std::string& line : Lines(RunProgram({"postqueue", "-c", kEtc, "-j"}).output)) {
    Json::Value message;
    if (!(std::istringstream(line) >> message)) continue;
    queue["messages"] = queue["messages"].asInt() + 1;
    const Json::Value& arrival = message["arrival_time"];
    if (queue["oldest"].isNull() || arrival < queue["oldest"]) queue["oldest"] = arrival;
  }
  return queue;
}

void Print(const CheckResults& mail, const std::vector<InstalledVersion>& versions, const Json::Value& all) {
  for (const CheckResult& one : mail) {
    std::cout << std::left << std::setw(10) << (one.Bad() ? "BAD" : Word(one.grade)) << Name(one.question)
              << ": " << one.Said() << '\n';
    if (!one.sentence.empty()) std::cout << std::setw(10) << "" << one.sentence << '\n';
  }
  const int waiting = all["queue"]["messages"].asInt();
  std::cout << "queue: " << waiting << (waiting == 1 ? " message waits" : " messages wait");
  if (waiting > 0) {
    const auto oldest = static_cast<std::time_t>(all["queue"]["oldest"].asInt64());
    std::cout << ", the oldest since " << std::put_time(std::localtime(&oldest), "%Y-%m-%d %H:%M:%S %z");
  }
  std::cout << "\nInstalled: " << ToString(versions) << '\n';
  if (!all["pending"].isNull()) std::cout << "A change is pending: " << all["pending"].asString() << '\n';
  for (const Json::Value& path : all["differing"]) {
    std::cout << "differs from state " << all["state"] << ": " << path.asString() << '\n';
  }
  std::cout << std::flush;
}

}  // namespace

int Check(const Request& request) {
  // Whether they run or not: a daemon that is down is a fault.
  std::set<DaemonId> daemons = {DaemonId::kPostfix};
  if (std::filesystem::exists("/usr/sbin/dovecot")) daemons.insert(DaemonId::kDovecot);
  const bool message = !Contains(request.arguments, "--no-message");
  CheckResults mail =
      AskMail(daemons, message ? "Mail is checked" : "", "nubo_config_apply check asked for this.\n");
  Json::Value all;
  AddForeignOwners(mail);
  AddCertificates(mail, all["certificates"] = Json::arrayValue);
  const std::vector<InstalledVersion> versions = DaemonVersions();
  for (const InstalledVersion& one : versions) {
    all["versions"][one.program] = one.version;
    if (one.warning.empty()) continue;
    mail.push_back({{Topic::kVersion, DaemonId::kPostfix, "", Asker::kMachine, one.program},
                    Grade::kWarning,
                    {one.warning}});
  }
  const bool works = std::none_of(mail.begin(), mail.end(), [](const CheckResult& one) { return one.Bad(); });
  all["queue"] = Queue();
  if (PendingChange::Exists()) all["pending"] = PendingChange::Read().what;
  Json::Value& differing = all["differing"] = Json::arrayValue;
  if (!States().empty()) {
    const int last = *States().rbegin();
    all["state"] = last;
    for (const FileKind kind : {FileKind::kInput, FileKind::kOutput}) {
      if (!HasFiles(StateDirectory(last), kind)) continue;
      for (const std::string& path : Differing(kind, StateDirectory(last))) differing.append(path);
    }
  }
  const int status = !works ? 1 : differing.empty() && all["pending"].isNull() ? 0 : kNotAsConfirmed;
  all["exit_status"] = status;
  if (Contains(request.arguments, "--json")) {
    all["mail"] = ToJson(mail);
    std::cout << all.toStyledString() << std::flush;
  } else {
    Print(mail, versions, all);
  }
  return status;
}
