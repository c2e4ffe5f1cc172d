#include "change/change.h"
#include "change/daemons.h"

namespace {

// The daemons that read what is not as it was found, or not as in the last state.
std::set<DaemonId> Readers(const PendingChange& change, ChangeKind kind) {
  if (kind == ChangeKind::kRenew) return ReadersOf({kSsl});
  Paths written = Differing(FileKind::kOutput, kPending);
  written.merge(Differing(FileKind::kInput, kPending));
  std::set<DaemonId> readers = ReadersOf(written);
  const std::string base = StateDirectory(change.base);
  // Nobody knows what the daemons have loaded of files as found.
  Paths stale = Differing(FileKind::kOutput, HasFiles(base, FileKind::kInput) ? base : "/nowhere");
  stale.merge(Differing(FileKind::kInput, base));
  for (const DaemonId reader : ReadersOf(stale)) {
    if (change.affected.count(reader) != 0) readers.insert(reader);
  }
  written.merge(stale);
  Sync(written);
  return readers;
}

}  // namespace

std::list<std::string> ReloadDaemons(const PendingChange& change, ChangeKind kind) {
  const std::set<DaemonId> readers = Readers(change, kind);
  const std::string found = kPending + "/out" + kEtc;
  const std::string base = StateDirectory(change.base) + "/out" + kEtc;
  const std::set<DaemonId> wanted = WantedMilters(kEtc);
  std::set<DaemonId> before = WantedMilters(found);
  if (HasFiles(StateDirectory(change.base), FileKind::kInput)) {
    const std::set<DaemonId> last = WantedMilters(base);
    for (const DaemonId milter : wanted) {
      if (last.count(milter) == 0) before.erase(milter);
    }
  }
  std::list<std::string> done;
  std::list<DaemonId> switchedOff;
  const auto reload = [&](DaemonId id) {
    PendingChange::Touch(id);
    done.push_back(DaemonOf(id).name + " " + ReloadDaemon(id, {found, base}));
  };
  for (const Daemon& daemon : Daemons()) {
    const bool milter = !daemon.milterPort.empty();
    const bool runs = change.running.count(daemon.id) != 0;
    const bool starts =
        milter && change.running.count(DaemonId::kPostfix) != 0 && before.count(daemon.id) == 0;
    if (milter && wanted.count(daemon.id) == 0) {
      if (runs) switchedOff.push_back(daemon.id);
    } else if (runs ? readers.count(daemon.id) != 0 : starts) {
      reload(daemon.id);
    }
  }
  if (readers.count(DaemonId::kMailScanner) != 0) reload(DaemonId::kMailScanner);
  for (const DaemonId milter : switchedOff) {
    PendingChange::Touch(milter);
    StopDaemon(DaemonOf(milter));
    done.push_back(DaemonOf(milter).name + " stopped");
  }
  return done;
}
