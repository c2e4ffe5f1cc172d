#include "change/plan.h"

#include <fstream>

#include "change/daemons.h"

namespace {

// The daemons that read what is not as it was found, or not as in the last state.
std::set<std::string> Readers(const Change& change, ChangeKind kind) {
  if (kind == ChangeKind::kRenew) return ReadersOf({kSsl});
  Paths written = Differing(FileKind::kOutput, kPending);
  written.merge(Differing(FileKind::kInput, kPending));
  std::set<std::string> readers = ReadersOf(written);
  const std::string base = StateDirectory(change.base);
  // Nobody knows what the daemons have loaded of files as found.
  Paths stale = Differing(FileKind::kOutput, HasFiles(base, FileKind::kInput) ? base : "/nowhere");
  stale.merge(Differing(FileKind::kInput, base));
  for (const std::string& name : ReadersOf(stale)) {
    if (change.concerned.count(name) != 0) readers.insert(name);
  }
  written.merge(stale);
  Sync(written);
  return readers;
}

}  // namespace

std::list<std::string> LoadChange(const Change& change, ChangeKind kind) {
  const std::set<std::string> readers = Readers(change, kind);
  const std::string found = kPending + "/out" + kEtc;
  const std::string base = StateDirectory(change.base) + "/out" + kEtc;
  const std::set<std::string> wanted = WantedMilters(kEtc);
  std::set<std::string> before = WantedMilters(found);
  if (HasFiles(StateDirectory(change.base), FileKind::kInput)) {
    const std::set<std::string> last = WantedMilters(base);
    for (const std::string& name : wanted) {
      if (last.count(name) == 0) before.erase(name);
    }
  }
  std::list<std::string> done;
  std::ofstream touched(kPending + "/touched");
  const auto touch = [&](const std::string& name) {
    touched << name << std::endl;
    Sync({kPending + "/touched"});
  };
  for (const Daemon& daemon : Daemons()) {
    const bool off = !daemon.milterPort.empty() && wanted.count(daemon.name) == 0;
    const bool runs = change.running.count(daemon.name) != 0;
    const bool starts =
        !daemon.milterPort.empty() && change.running.count("Postfix") != 0 && before.count(daemon.name) == 0;
    if (off || !(runs ? readers.count(daemon.name) != 0 : starts)) continue;
    touch(daemon.name);
    done.push_back(daemon.name + " " + LoadFiles(daemon.name, {found, base}));
  }
  if (readers.count(kMailScanner) != 0) {
    touch(kMailScanner);
    done.push_back(kMailScanner + " " + LoadFiles(kMailScanner, {}));
  }
  for (const Daemon& daemon : Daemons()) {
    if (daemon.milterPort.empty() || wanted.count(daemon.name) != 0 ||
        change.running.count(daemon.name) == 0) {
      continue;
    }
    touch(daemon.name);
    StopDaemon(daemon);
    done.push_back(daemon.name + " stopped");
  }
  return done;
}
