#include <syslog.h>

#include <ctime>
#include <filesystem>
#include <iostream>

#include "change/change.h"
#include "change/daemons.h"
#include "core/config_generator.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kKept = 10;

// Keeps the installed files of these paths in a directory that it prints: they hold words of the
// administrator that are about to be replaced.
void KeepInstalled(FileKind kind, Paths paths) {
  for (auto path = paths.begin(); path != paths.end();) {
    path = fs::exists(*path) ? std::next(path) : paths.erase(path);
  }
  if (paths.empty()) return;
  const std::string all = kStates + "/kept";
  const std::string tree = all + "/" + std::to_string(std::time(nullptr));
  SetAside(kind, paths, tree);
  Sync({tree});
  for (const std::string& path : paths) {
    std::cout << path << " is kept as " << PlaceOf(kind, tree, path) << std::endl;
  }
  std::set<std::string> trees;
  for (const fs::directory_entry& entry : fs::directory_iterator(all)) trees.insert(entry.path());
  for (; trees.size() > kKept; trees.erase(trees.begin())) fs::remove_all(*trees.begin());
}

// Loads a daemon that has been touched. It may be that it never ran on the files as they were found, since
// somebody is half-way through an edit: then it gets those of the last state while it loads.
void ReloadAsFound(const Daemon& daemon, const PendingChange& change) {
  const std::string base = StateDirectory(change.base);
  const std::vector<std::string> loaded = {kTried + "/out" + kEtc, base + "/out" + kEtc};
  try {
    (void)ReloadDaemon(daemon.id, loaded);
    return;
  } catch (const Fault&) {
    if (!HasFiles(base, FileKind::kInput)) throw;
  }
  PendingChange::SayInputsReplaced();
  const auto restore = [&](const std::string& tree) {
    for (const FileKind kind : {FileKind::kInput, FileKind::kOutput}) {
      Paths read;
      for (const std::string& path : Differing(kind, kPending, base)) {
        if (ReadersOf({path}).count(daemon.id) != 0) read.insert(path);
      }
      RestoreFiles(kind, read, tree);
    }
  };
  std::string failed;
  try {
    restore(base);
    (void)ReloadDaemon(daemon.id, loaded);
  } catch (const std::exception& error) {
    failed = error.what();
  }
  restore(kPending);
  if (failed.empty()) return;
  throw Fault(failed + (IsServing(daemon) ? "" : ". Mend that, then start it by: " + StartCommand(daemon)));
}

// The daemons that have to load the files again.
std::set<DaemonId> TouchedDaemons(const PendingChange& change, const Paths& restored) {
  const std::set<DaemonId> readers = ReadersOf(restored);
  std::set<DaemonId> touched = PendingChange::Touched();
  for (const DaemonId id : change.running) {
    // Postfix's processes read its files whenever one of them starts; and after a boot all have read them.
    const bool read = id == DaemonId::kPostfix || change.boot != ThisBoot();
    if ((read && readers.count(id) != 0) || !IsServing(DaemonOf(id))) touched.insert(id);
  }
  return touched;
}

// Says how the rollback went. Returns the exit status.
int Explain(const PendingChange& pending, const std::string& reason, const std::list<std::string>& failed) {
  syslog(LOG_MAIL | LOG_WARNING, "%s was taken back: %s", pending.what.c_str(), reason.c_str());
  for (const std::string& one : failed) {
    std::cout << "Not as before: " << one << std::endl;
    syslog(LOG_MAIL | LOG_ERR, "not as before: %s", one.c_str());
  }
  if (PendingChange::Exists()) {
    std::cout << "Mend what is named, then run: nubo_config_apply recover" << std::endl;
    return 4;
  }
  std::cout << (failed.empty() ? "All is as before" : "The files are as before")
            << "; your settings are as you wrote them." << std::endl;
  if (HasFiles(StateDirectory(pending.base), FileKind::kInput) &&
      !Differing(FileKind::kInput, StateDirectory(pending.base)).empty()) {
    std::cout << "Those of state " << pending.base << " come back by: nubo_config_apply undo " << pending.base
              << std::endl;
  }
  return failed.empty() ? 3 : 4;
}

}  // namespace

void ReplaceInputs(const PendingChange& change) {
  const std::string tree = StateDirectory(change.source);
  Paths lost;
  for (const std::string& path : Differing(FileKind::kInput, tree)) {
    if (!IsSame(FileKind::kInput, path, StateDirectory(change.base))) lost.insert(path);
  }
  KeepInstalled(FileKind::kInput, lost);
  PendingChange::SayInputsReplaced();
  RestoreFiles(FileKind::kInput, Differing(FileKind::kInput, tree), tree);
}

Paths RestoreFound(const PendingChange& pending) {
  Paths restored;
  const bool tried = HasFiles(kTried, FileKind::kOutput);
  const Paths planned = PendingChange::Plan();
  Paths edited;
  for (const std::string& path : Differing(FileKind::kOutput, kPending)) {
    const bool found = fs::exists(fs::symlink_status(PlaceOf(FileKind::kOutput, kPending, path)));
    const bool written =
        tried ? !IsSame(FileKind::kOutput, path, kPending, kTried) : found || planned.count(path) != 0;
    if (!written) continue;  // by somebody else
    restored.insert(path);
    if (tried && !IsSame(FileKind::kOutput, path, kTried)) edited.insert(path);
  }
  KeepInstalled(FileKind::kOutput, edited);
  RestoreFiles(FileKind::kOutput, restored, kPending);
  if (!tried) RemoveLeftovers(kPending + "/about");
  if (!PendingChange::AreInputsReplaced()) return restored;
  const Paths inputs = Differing(FileKind::kInput, kPending);
  edited.clear();
  for (const std::string& path : inputs) {
    if (!IsSame(FileKind::kInput, path,
                StateDirectory(pending.source == 0 ? pending.base : pending.source))) {
      edited.insert(path);
    }
  }
  KeepInstalled(FileKind::kInput, edited);
  RestoreFiles(FileKind::kInput, inputs, kPending);
  restored.insert(inputs.begin(), inputs.end());
  return restored;
}

int RollBack(const PendingChange& pending, const std::string& reason) {
  IgnoreInterrupts();
  std::cout << "Taken back: " << reason << std::endl;
  std::list<std::string> failed;
  const auto attempt = [&](const std::function<void()>& work) {
    try {
      work();
    } catch (const std::exception& error) {
      failed.emplace_back(error.what());
    }
  };
  PendingChange before = pending;
  if (pending.boot != ThisBoot()) before.running = RunningDaemons();  // none, when this is done at boot
  Paths restored;
  attempt([&] {
    const Step step("The files are put back");
    PendingChange::BeginRollback();
    if (fs::exists(kFoundSsl)) InstallSsl(kFoundSsl);
    restored = RestoreFound(pending);
  });
  const bool whole = failed.empty();
  const std::set<DaemonId> touched = TouchedDaemons(before, restored);
  for (const Daemon& daemon : Daemons()) {
    if (touched.count(daemon.id) == 0) continue;
    if (before.running.count(daemon.id) != 0) {
      attempt([&] {
        const Step step(daemon.name + " loads them");
        ReloadAsFound(daemon, before);
      });
    } else {
      StopDaemon(daemon);
    }
  }
  if (touched.count(DaemonId::kMailScanner) != 0) (void)ReloadDaemon(DaemonId::kMailScanner, {});
  const std::string shared = SharedPorts();
  if (!shared.empty()) std::cout << "Mail is not checked: Postfix shares a port. " << shared << std::endl;
  if (shared.empty() && !before.running.empty()) {
    attempt([&] {
      (void)CheckAgain(before, "A change of the mail system was taken back",
                       " was taken back.\n" + reason + "\n");
    });
  }
  if (whole) attempt(PendingChange::End);
  return Explain(pending, reason, failed);
}
