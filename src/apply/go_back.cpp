#include "apply/go_back.h"

#include <syslog.h>

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "apply/report.h"
#include "apply/state.h"
#include "core/config_generator.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kSmtpSettings = "/in/var/packages/Brindlecot/etc/settings/smtp.json";

void KeepRefused() {
  const std::string refused = std::string(kPending) + "/refused";
  if (fs::exists(refused)) return;
  fs::remove_all(refused + ".new");
  Keep(Kind::kInput, refused + ".new", "");
  Install(refused + ".new", refused);
}

// The package helper was told the account type of the refused settings.
void TellHelper() {
  if (TextOf(kPending + std::string(kSmtpSettings)) ==
      TextOf(kPending + ("/refused" + std::string(kSmtpSettings)))) {
    return;
  }
  ConfigGenerator generator;
  if (generator.LoadAllSettings() >= 0) generator.UpdatePamConfig();
}

// The daemons as they were before, on the files that are there now.
void RestartDaemons(const Pending& pending, std::vector<std::string>& failed) {
  std::vector<RunningDaemon> running = RunningDaemons();
  std::reverse(running.begin(), running.end());
  for (const RunningDaemon& daemon : running) StopDaemon(daemon);
  const auto start = [](const RunningDaemon& daemon) -> std::string {
    try {
      StartDaemon(daemon.name, daemon.unit);
      return "";
    } catch (const Fault& fault) {
      return fault.what();
    }
  };
  for (const RunningDaemon& daemon : pending.running) {
    if (start(daemon).empty()) continue;
    // A change that was killed may have left a start behind, which has come first.
    StopDaemon(daemon);
    const std::string reason = start(daemon);
    if (!reason.empty()) failed.push_back(reason);
  }
}

}  // namespace

std::vector<MailObservation> AskMail(const std::vector<RunningDaemon>& daemons, const std::string& subject,
                                     const std::string& text) {
  MailCheck check;
  check.postfix = Runs(daemons, "Postfix");
  check.dovecot = Runs(daemons, "Dovecot");
  check.subject = subject;
  check.text = text;
  return CheckMail(check);
}

std::vector<std::string> Worse(const std::vector<MailObservation>& seen,
                               const std::set<std::string>& unwell) {
  std::vector<std::string> worse;
  for (const MailObservation& one : seen) {
    if (!one.good && unwell.count(one.what) == 0) worse.push_back(one.what + ": " + one.detail);
  }
  return worse;
}

std::string Join(const std::vector<std::string>& items, const char* separator) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : separator) + item;
  return text;
}

void EndPending() {
  const std::string gone = std::string(kStates) + "/pending.new";
  fs::remove_all(gone);
  fs::rename(kPending, gone);
  Sync({std::string(kStates) + "/lock"});  // and with it the directory
  fs::remove_all(gone);
}

int GoBack(const Pending& pending, const std::string& reason) {
  std::cout << "Taken back: " << reason << std::endl;
  std::vector<std::string> failed;
  bool settings = false;
  {
    const Step step("The files are put back");
    try {
      KeepRefused();
      settings = Holds(kPending, Kind::kInput);
      if (settings) {
        failed = PutBack(Kind::kInput, kPending);
        TellHelper();
      }
      const std::vector<std::string> more = PutBack(Kind::kOutput, kPending);
      failed.insert(failed.end(), more.begin(), more.end());
    } catch (const std::exception& error) {
      failed.emplace_back(error.what());
    }
  }
  const bool files = failed.empty();
  if (pending.boot == ThisBoot()) {
    {
      const Step step("The daemons are restarted");
      RestartDaemons(pending, failed);
    }
    const Step step("Mail is checked");
    const std::vector<std::string> worse =
        Worse(AskMail(pending.running, "A change of the mail system was taken back",
                      pending.what + " was taken back.\n" + reason + "\n"),
              pending.unwell);
    failed.insert(failed.end(), worse.begin(), worse.end());
  }
  syslog(LOG_MAIL | LOG_WARNING, "%s was taken back: %s", pending.what.c_str(), reason.c_str());
  for (const std::string& one : failed) {
    std::cout << "Not as before: " << one << std::endl;
    syslog(LOG_MAIL | LOG_ERR, "not as before: %s", one.c_str());
  }
  if (!files) {
    std::cout << "Mend what is named, then run: nubo_config_apply recover" << std::endl;
    return 4;
  }
  const std::string refused = std::string(kPending) + "/refused";
  if (fs::exists(refused)) Install(refused, kRefused);
  EndPending();
  std::cout << (failed.empty() ? "All is as before" : "The files are as before")
            << (settings ? "; the settings that were refused are in "
                         : "; your settings are as you wrote them, also in ")
            << kRefused << std::endl;
  return failed.empty() ? 3 : 4;
}
