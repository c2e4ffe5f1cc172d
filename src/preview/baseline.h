/// Mail as it was before the change. What was not good then, and would not be worse, is no reason to refuse.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "preview/differences.h"
#include "preview/network.h"
#include "preview/verdict.h"

/// The installed files, tried like the new ones: in a sandbox of their own, since a live check would not ask
/// the same, and would send messages. It takes as long as the preview itself, so it is made only when
/// something is refused. The running daemons are asked too what they can be asked without a message: files
/// that have been spoilt since they were loaded are no excuse.
class Baseline {
 public:
  /// Before the sandbox is made.
  Baseline(std::vector<std::string> words, bool rehearsal, std::vector<Place> taken);

  /// Outside the sandbox, while it works: makes the trial if it is asked for, and otherwise returns when the
  /// sandbox has ended.
  void Serve();

  /// In the sandbox: has the trial made when one of the verdicts is "refused". Turns into warnings the
  /// verdicts that were so before. `files` are the changed ones.
  void Compare(std::vector<Verdict>& verdicts, const std::vector<Difference>& files);

 private:
  struct Before {
    std::map<std::string, Verdict> tried;  // by their names
    std::vector<std::string> live;         // the names of what is good in the running daemons
  };

  void Try();
  Before Read() const;

  std::vector<std::string> words_;
  bool rehearsal_;
  std::vector<Place> taken_;
  int ask_[2];     // a pipe: a byte asks for the trial
  int answer_[2];  // a pipe: a byte tells that it is made
  int result_;     // a file in memory
};
