#include "change/pending.h"

#include <json/json.h>

#include <filesystem>
#include <fstream>

#include "change/basics.h"
#include "core/config_generator.h"
#include "mail/paths.h"

namespace {

namespace fs = std::filesystem;

const std::string kAbout = kPending + "/about";  // brindlecot-recover.service looks for the boot in it
const std::string kRoom = kPending + "/room";
const std::string kPlan = kPending + "/plan";
const std::string kTouched = kPending + "/touched";
const std::string kInputsReplaced = kPending + "/inputs";
const std::string kGood = kPending + "/good";
constexpr off_t kRoomBytes = 65536;  // for directories that grow when files are put back

Json::Value Array(const std::set<DaemonId>& daemons) {
  Json::Value array(Json::arrayValue);
  for (const DaemonId id : daemons) array.append(DaemonOf(id).name);
  return array;
}

std::set<DaemonId> DaemonsIn(const Json::Value& array) {
  std::set<DaemonId> daemons;
  for (const Json::Value& name : array) daemons.insert(DaemonNamed(name.asString()).id);
  return daemons;
}

}  // namespace

bool PendingChange::Exists() { return fs::exists(kPending); }

PendingChange PendingChange::Read() {
  if (!Exists()) throw Fault("no change is pending");
  Json::Value about;
  std::ifstream(kAbout) >> about;
  return {about["base"].asInt(),
          about["what"].asString(),
          about["user"].asString(),
          about["boot"].asString(),
          static_cast<long>(about["deadline"].asInt64()),
          about["source"].asInt(),
          DaemonsIn(about["affected"]),
          DaemonsIn(about["running"]),
          about["mail"].isNull() ? CheckResults() : FromJson(about["mail"])};  // of an earlier version
}

void PendingChange::Save(bool withCertificate) const {
  const std::string tree = kPending + ".new";
  SaveFiles(FileKind::kOutput, tree);
  SaveFiles(FileKind::kInput, tree);
  if (withCertificate) RunOrThrow({"cp", "-aT", fs::canonical(kSsl), tree + "/ssl"}, kSsl);
  Json::Value about;
  about["base"] = base;
  about["what"] = what;
  about["user"] = user;
  about["boot"] = boot;
  about["deadline"] = static_cast<Json::Int64>(deadline);
  about["source"] = source;
  about["affected"] = Array(affected);
  about["running"] = Array(running);
  about["mail"] = ToJson(mail);
  WriteFile(tree + "/about", about.toStyledString());
  ReserveRoom(tree + "/room", kRoomBytes);
  Install(tree, kPending);
}

void PendingChange::SavePlan(const Paths& paths) {
  WriteFile(kPlan, JoinList({paths.begin(), paths.end()}, "\n"));
}

Paths PendingChange::Plan() {
  const std::vector<std::string> paths = Lines(ReadFile(kPlan));
  return {paths.begin(), paths.end()};
}

void PendingChange::SayInputsReplaced() { WriteFile(kInputsReplaced, ""); }
bool PendingChange::AreInputsReplaced() { return fs::exists(kInputsReplaced); }

void PendingChange::SaveTriedInputs() const {
  SaveFiles(FileKind::kInput, kTried + ".new", StateDirectory(base));
}

void PendingChange::SaveTried(const std::string& shown) const {
  SaveFiles(FileKind::kOutput, kTried + ".new", StateDirectory(base));
  const std::string time = TimeOfDay("%Y-%m-%d %H:%M:%S %z", 0);
  Json::Value about;
  about["time"] = TimeOfDay("%Y-%m-%dT%H:%M:%S%z", 0);
  about["user"] = user;
  about["change"] = what;
  WriteFile(kTried + ".new/about", about.toStyledString());
  WriteFile(kTried + ".new/preview", time + "  " + user + "  " + what + "\n\n" + shown);
  Install(kTried + ".new", kTried);
}

void PendingChange::Touch(DaemonId daemon) {
  fs::create_directory(kTouched);
  WriteFile(kTouched + "/" + DaemonOf(daemon).name, "");
  Sync({kTouched});
}

std::set<DaemonId> PendingChange::Touched() {
  std::set<DaemonId> touched;
  std::error_code none;
  for (const fs::directory_entry& entry : fs::directory_iterator(kTouched, none)) {
    touched.insert(DaemonNamed(entry.path().filename()).id);
  }
  return touched;
}

void PendingChange::SayGood() { WriteFile(kGood, ""); }
bool PendingChange::IsGood() { return fs::exists(kGood); }

void PendingChange::BeginRollback() {
  fs::remove(kGood);
  fs::remove(kRoom);
  Sync({kGood});
}

int PendingChange::BecomeState() const {
  if (!fs::exists(kTried)) return 0;
  fs::rename(kTried, StateDirectory(base + 1));
  Sync({StateDirectory(base + 1)});
  return base + 1;
}

void PendingChange::End() {
  fs::rename(kPending, kPending + ".new");
  Sync({kPending});
  fs::remove_all(kPending + ".new");
}
