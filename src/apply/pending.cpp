#include "apply/pending.h"

#include <ctime>
#include <filesystem>
#include <sstream>

#include "apply/state.h"

bool IsPending() { return std::filesystem::exists(kPending); }

Pending ReadPending() {
  Pending pending;
  std::istringstream lines(TextOf(std::string(kPending) + "/about"));
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key;
    words >> key >> std::ws;
    if (key == "base") {
      words >> pending.base;
    } else if (key == "deadline") {
      words >> pending.deadline;
    } else if (key == "boot") {
      words >> pending.boot;
    } else if (key == "what") {
      std::getline(words, pending.what);
    } else if (key == "running") {
      RunningDaemon daemon = {};
      words >> daemon.name >> daemon.unit;
      pending.running.push_back(daemon);
    } else if (key == "unwell") {
      std::string what;
      std::getline(words, what);
      pending.unwell.insert(what);
    }
  }
  if (pending.base == 0) throw Fault(std::string(kPending) + "/about is missing or damaged");
  return pending;
}

void WritePending(const Pending& pending, const std::string& tree) {
  std::ostringstream text;
  text << "base " << pending.base << "\ndeadline " << pending.deadline << "\nboot " << pending.boot
       << "\nwhat " << pending.what << "\n";
  for (const RunningDaemon& daemon : pending.running) {
    text << "running " << daemon.name << " " << daemon.unit << "\n";
  }
  for (const std::string& what : pending.unwell) text << "unwell " << what << "\n";
  WriteText(tree + "/about", text.str());
}

std::string ThisBoot() {
  const std::string id = TextOf("/proc/sys/kernel/random/boot_id");
  return id.substr(0, id.find('\n'));
}

long Now() {
  timespec now = {};
  clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}
