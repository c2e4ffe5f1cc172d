#include <gtest/gtest.h>

#include "checks/check_result.h"
#include "system/program.h"

namespace {

constexpr DaemonId kPostfix = DaemonId::kPostfix;
constexpr DaemonId kDovecot = DaemonId::kDovecot;

const Question kPort25 = {Topic::kGreeting, kPostfix, "25"};
const Question kPort465 = {Topic::kGreeting, kPostfix, "465", Asker::kMachine, "", true};
const Question kLogin465 = {Topic::kLogin, kPostfix, "465", Asker::kUser, "", true};
const Question kToPostmaster = {Topic::kArrival, kPostfix, "", Asker::kStranger, "postmaster"};
const Question kRelay = {Topic::kRelaying, kPostfix, "", Asker::kStranger};
const Question kImap = {Topic::kGreeting, kDovecot, "imap"};
const Question kLog = {Topic::kLog, kPostfix};

CheckResult Result(const Question& question, Grade grade, std::vector<std::string> words = {}) {
  return {question, grade, std::move(words)};
}

}  // namespace

TEST(CheckResult, IsComparedWithTheOneBefore) {
  constexpr Grade kGood = Grade::kGood;
  constexpr Grade kBad = Grade::kBad;
  const struct {
    const char* title;
    CheckResults before;
    CheckResult after;
    Shift shift;
  } kCases[] = {
      {"good", {Result(kPort25, kGood)}, Result(kPort25, kGood), Shift::kSame},
      {"mended", {Result(kPort25, kBad)}, Result(kPort25, kGood), Shift::kDifferent},
      {"new and bad", {Result(kPort25, kGood)}, Result(kPort465, kBad), Shift::kWorse},
      {"bad as before", {Result(kPort25, kBad, {"a"})}, Result(kPort25, kBad, {"b"}), Shift::kSoBefore},
      {"worse", {Result(kPort25, kGood)}, Result(kPort25, kBad), Shift::kWorse},
      {"opened", {Result(kRelay, kGood)}, Result(kRelay, kBad), Shift::kOpened},
      {"open as before", {Result(kRelay, kBad)}, Result(kRelay, kBad), Shift::kSoBefore},
      {"opened while down", {Result({Topic::kStarts, kPostfix}, kBad)}, Result(kRelay, kBad), Shift::kOpened},
      {"a port that another takes while it is down",
       {Result({Topic::kStarts, kPostfix}, kBad)},
       Result({Topic::kPortOwner, kPostfix, "11211"}, kBad),
       Shift::kOpened},
      {"closed while down",
       {Result(kImap, kGood), Result({Topic::kStarts, kPostfix}, kBad)},
       Result(kPort25, kBad),
       Shift::kSoBefore},
      {"another was down", {Result({Topic::kStarts, kDovecot}, kBad)}, Result(kPort25, kBad), Shift::kWorse},
      {"unreadable files",
       {Result({Topic::kConfiguration, kDovecot}, kBad)},
       Result(kImap, kBad),
       Shift::kSoBefore},
      {"silent listener", {Result(kPort465, kBad)}, Result(kLogin465, kBad), Shift::kSoBefore},
      {"another listener", {Result(kPort25, kBad)}, Result(kLogin465, kBad), Shift::kWorse},
      {"any listener", {Result(kPort25, kBad)}, Result(kToPostmaster, kBad), Shift::kSoBefore},
      {"another line", {Result(kLog, kBad, {"a"})}, Result(kLog, kBad, {"a", "b"}), Shift::kWorse},
      {"fewer lines", {Result(kLog, kBad, {"a", "b"})}, Result(kLog, kBad, {"b"}), Shift::kSoBefore},
  };
  for (const auto& row : kCases) {
    EXPECT_EQ(static_cast<int>(Compare(row.before, {row.after})[0]), static_cast<int>(row.shift))
        << row.title;
  }
}

TEST(CheckResult, IsTheSameAfterJson) {
  CheckResults results;
  for (int topic = 0; topic <= static_cast<int>(Topic::kVersion); ++topic) {
    const auto by = static_cast<Asker>(topic % 5);
    results.push_back(
        {{static_cast<Topic>(topic), kDovecot, "imap", by, "10.0.0.0/8", topic % 2 == 0, topic % 3 == 0},
         static_cast<Grade>(topic % 5),
         {"one", "two"},
         "Who.",
         "127.0.0.1:143",
         "imap"});
  }
  const Json::Value json = ToJson(results);
  std::string words;  // which monitoring reads, and states on disk have
  for (const Json::Value& one : json) words += one["question"]["topic"].asString() + " ";
  for (const Json::Value& one : json)
    words += one["question"]["by"].asString() + one["state"].asString() + " ";
  EXPECT_EQ(words.substr(0, words.find("usernot installed ")),
            "configuration starts stays up log greeting STARTTLS switched off login arrival relaying "
            "trusted networks relay host delivery port's owner program certificate room PAM version "
            "machinegood strangerbad local senderwarning neighbournot asked ");
  EXPECT_EQ(json[0]["what"].asString(), "10.0.0.0/8");
  const CheckResults again = FromJson(json);
  ASSERT_EQ(again.size(), results.size());
  for (size_t i = 0; i < again.size(); ++i) EXPECT_TRUE(again[i].question == results[i].question) << i;
  EXPECT_EQ(ToJson(again), json);
  Json::Value wrong = json;
  wrong[0]["state"] = "excellent";
  EXPECT_THROW(FromJson(wrong), Fault);
  wrong = json;
  wrong[0]["question"]["daemon"] = "Sendmail";
  EXPECT_THROW(FromJson(wrong), Fault);
  EXPECT_THROW(FromJson("text"), Fault);
}

TEST(CheckResult, HasANameForPeople) {
  std::string names;
  for (int topic = 0; topic <= static_cast<int>(Topic::kVersion); ++topic) {
    names += Name({static_cast<Topic>(topic), kPostfix, "25", Asker::kStranger, "x", true}) + "\n";
  }
  EXPECT_EQ(names,
            "x\nx starts\nx goes on\nPostfix's log\nPostfix, port 25, TLS\nPostfix, port 25, STARTTLS\n"
            "Postfix, port 25 at x\nPostfix, port 25, login\na stranger's mail to x, STARTTLS\n"
            "port 25: no mail of a stranger to other domains\nthe trusted networks\nthe relay host\n"
            "a message to x\nx, port 25\nPostfix, port 25, TLS, program at x\n"
            "Postfix, port 25, STARTTLS, certificate\nroom for mail\nPAM services\nversion of x\n");
  const std::pair<Question, const char*> kCases[] = {
      {{Topic::kConfiguration, kDovecot}, "Dovecot's configuration"},
      {{Topic::kStarts, kDovecot}, "Dovecot"},
      {{Topic::kGreeting, kDovecot, "imaps", Asker::kMachine, "", true}, "Dovecot, imaps"},
      {{Topic::kRelaying, kPostfix, "", Asker::kLocalSender, "", false, true},
       "no mail of a stranger with a local sender to other domains, IPv6"},
      {{Topic::kRelaying, kPostfix, "", Asker::kNeighbour, "10.0.0.0/8"},
       "no mail from 10.0.0.0/8 to other domains"},
      {{Topic::kDelivery, kPostfix}, "a message from this machine"},
  };
  for (const auto& [question, name] : kCases) EXPECT_EQ(Name(question), name);
}
