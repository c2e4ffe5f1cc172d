#include "preview/baseline.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <list>

#include "checks/mail_check.h"
#include "mail/daemons.h"
#include "mail/listeners.h"
#include "preview/covers.h"
#include "preview/rehearsal.h"
#include "preview/sandbox.h"
#include "system/program.h"
#include "system/text.h"

namespace {

const std::string kRehearsal = "rehearsal: ";

// The name of the daemon's program.
std::string ProgramOf(const Daemon& daemon) {
  return daemon.name == "Postfix" ? "master" : std::filesystem::path(daemon.program).filename().string();
}

// The daemon that a verdict is about.
const Daemon& DaemonOf(const std::string& verdict) {
  const auto found = std::find_if(Daemons().begin(), Daemons().end(), [&](const Daemon& daemon) {
    return Contains(verdict, daemon.name) || Contains(verdict, ProgramOf(daemon));
  });
  return found == Daemons().end() ? DaemonNamed("Postfix") : *found;
}

// True for a question whose answer opens the machine, not one that closes it.
bool IsOpening(const std::string& verdict) {
  return Contains(verdict, "no mail ") || Contains(verdict, "trusted networks");
}

bool Reads(const Daemon& daemon, const std::string& path) {
  // All files of the others are below the directory that is Postfix's.
  const bool others = std::any_of(Daemons().begin(), Daemons().end(), [&](const Daemon& other) {
    return other.name != "Postfix" && StartsWith(path, other.files[0]);
  });
  return std::any_of(daemon.files.begin(), daemon.files.end(),
                     [&](const std::string& begin) { return StartsWith(path, begin); }) &&
         !(daemon.name == "Postfix" && others);
}

}  // namespace

Baseline::Baseline(std::vector<std::string> words, bool rehearsal, std::vector<Place> taken)
    : words_(std::move(words)),
      rehearsal_(rehearsal),
      taken_(std::move(taken)),
      result_(memfd_create("baseline", MFD_CLOEXEC)) {
  if (pipe2(ask_, O_CLOEXEC) != 0 || pipe2(answer_, O_CLOEXEC) != 0 || result_ < 0)
    throw std::runtime_error("cannot make a pipe");
}

void Baseline::Serve() {
  close(ask_[1]);
  char byte = 0;
  if (read(ask_[0], &byte, 1) == 1) {
    InSandbox([this] {
      Try();
      return 0;
    });
    for (const Daemon& daemon : Daemons()) {
      const std::vector<TcpListener> all = TcpListeners();
      if (std::any_of(all.begin(), all.end(),
                      [&](const TcpListener& listener) { return Belongs(listener, daemon); }))
        dprintf(result_, "live\t%s%s starts\n", kRehearsal.c_str(), ProgramOf(daemon).c_str());
    }
    for (const CheckResult& one : CheckMail({true, true, false, "", ""})) {
      if (one.grade == Grade::kGood)
        dprintf(result_, "live\t%s%s\n", kRehearsal.c_str(), Name(one.question).c_str());
    }
  }
  if (write(answer_[1], &byte, 1) != 1) std::cerr << "nubo_config_preview: no baseline" << std::endl;
}

void Baseline::Try() {
  std::list<Checker> checkers;
  CoverData();
  for (const std::string& word : words_) {
    if (word != "mailscanner") StartCheckers(checkers, word);
  }
  std::vector<Verdict> verdicts = Verdicts(checkers);
  if (rehearsal_) {
    for (const Verdict& verdict : Rehearse(taken_)) verdicts.push_back(verdict);
  }
  for (const Verdict& verdict : verdicts) {
    dprintf(result_, "%d\t%s\n", static_cast<int>(verdict.word), verdict.by.c_str());
    for (const std::string& line : verdict.said) dprintf(result_, "said\t%s\n", line.c_str());
  }
}

Baseline::Before Baseline::Read() const {
  std::string text(static_cast<size_t>(std::max<off_t>(lseek(result_, 0, SEEK_END), 0)), '\0');
  if (pread(result_, text.data(), text.size(), 0) < 0) text.clear();
  Before before;
  Verdict* last = nullptr;
  for (const std::string& line : Lines(text)) {
    const std::string kind = line.substr(0, line.find('\t'));
    const std::string rest = line.substr(std::min(kind.size() + 1, line.size()));
    if (kind == "live") {
      before.live.push_back(rest);
    } else if (kind == "said") {
      if (last != nullptr) last->said.push_back(rest);
    } else {
      last = &(before.tried[rest] = {rest, static_cast<Verdict::Word>(std::atoi(kind.c_str())), {}});
    }
  }
  return before;
}

void Baseline::Compare(std::vector<Verdict>& verdicts, const std::vector<Difference>& files) {
  const auto refused = [](const auto& verdict) { return verdict.word == Verdict::kRefused; };
  if (std::none_of(verdicts.begin(), verdicts.end(), refused)) return;
  char byte = 0;
  if (write(ask_[1], &byte, 1) != 1 || read(answer_[0], &byte, 1) != 1) return;
  const Before before = Read();
  // A daemon that did not run, or that did not answer, was not asked the rest.
  const auto down = [&](const Daemon& daemon) {
    return std::any_of(before.tried.begin(), before.tried.end(), [&](const auto& one) {
      return refused(one.second) && DaemonOf(one.first).name == daemon.name &&
             (Contains(one.first, " starts") || Contains(one.first, "configuration") ||
              Contains(one.first, ", port "));
    });
  };
  for (Verdict& verdict : verdicts) {
    if (!refused(verdict)) continue;
    const auto found = before.tried.find(verdict.by);
    const Daemon& daemon = DaemonOf(verdict.by);
    bool same = found == before.tried.end() ? down(daemon) && !IsOpening(verdict.by) : refused(found->second);
    if (Contains(verdict.by, "log")) {
      same = same && std::all_of(verdict.said.begin(), verdict.said.end(), [&](const std::string& line) {
               return found == before.tried.end() || Contains(found->second.said, line);
             });
    }
    // A file of the daemon may have been edited in place, when the command is about the daemon.
    const bool concerned = Contains(words_, daemon.name == "Dovecot" ? "dovecot" : "smtp") ||
                           std::any_of(files.begin(), files.end(),
                                       [&](const Difference& file) { return Reads(daemon, file.path); });
    if (!same || (concerned && Contains(before.live, verdict.by))) continue;
    verdict.word = Verdict::kWarning;
    verdict.said.insert(verdict.said.begin(), "It was so before this change.");
  }
}
