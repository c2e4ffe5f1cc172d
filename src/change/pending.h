/// The pending change on disk (change.h): its files, their order, and what is synced when.
#pragma once

#include <set>
#include <string>

#include "change/state.h"
#include "checks/check_result.h"
#include "mail/daemons.h"

/// Trees (state.h). kPending itself has the files as they were found.
inline const std::string kTried = kPending + "/tried";     ///< what was tried
inline const std::string kFoundSsl = kPending + "/ssl";    ///< the certificate's directory, as found
inline const std::string kNewSsl = kPending + "/ssl.new";  ///< the one that replaces it

/// What it writes is on disk when a function returns. All that write throw Fault.
struct PendingChange {
  int base = 0;                 ///< the state that it starts from
  std::string what;             ///< one line for the administrator: the command, and why it was given
  std::string user;             ///< who gave it
  std::string boot;             ///< the boot of the machine that it belongs to
  long deadline = 0;            ///< to be confirmed until then, in CLOCK_BOOTTIME seconds; 0: at once
  int source = 0;               ///< the state whose files an undo puts back; 0: none
  std::set<DaemonId> affected;  ///< the daemons whose files the command makes
  std::set<DaemonId> running;   ///< before it
  CheckResults mail;            ///< the checks of mail before it

  /// True when there is one.
  static bool Exists();

  /// Throws Fault when there is none.
  static PendingChange Read();

  /// Saves all that a rollback needs, and the room for it. From here on there is a pending change.
  void Save(bool withCertificate) const;

  /// Saves which files are about to be written: a rollback removes no other new file.
  static void SavePlan(const Paths& paths);
  static Paths Plan();

  /// Says that the inputs are about to be replaced, and have to be put back.
  static void SayInputsReplaced();
  static bool AreInputsReplaced();

  /// Saves the inputs from which the files are about to be written, then the files that were. `shown` is what
  /// the change does, for people.
  void SaveTriedInputs() const;
  void SaveTried(const std::string& shown) const;

  /// Says that a daemon is about to load the files.
  static void Touch(DaemonId daemon);
  static std::set<DaemonId> Touched();

  /// Says that the change is in force as a whole, and may be confirmed.
  static void SayGood();
  static bool IsGood();

  /// From here on nobody can confirm it. Gives the reserved room back.
  static void BeginRollback();

  /// Makes what was tried a state. Returns its number; 0 when the change makes none.
  [[nodiscard]] int BecomeState() const;

  /// Removes it.
  static void End();
};
