// Aliases, a line each: the name and its recipients, with tabs between them.
#include <json/json.h>

#include "fuzz.h"
#include "platform/brindlecot.h"

// Takes a name or a recipient off an aliases(5) file: bare, or in double quotes with backslashes.
static std::string TakeWord(std::string& text) {
  std::string word = text.substr(0, text.find_first_of(" \"#%(),:;<>[\\]\n"));
  text.erase(0, word.size());
  if (!word.empty()) return word;
  assert(text.at(0) == '"');  // what is not quoted stands for itself
  for (text.erase(0, 1); text.at(0) != '"'; text.erase(0, 1)) {
    if (text[0] == '\\') text.erase(0, 1);
    word += text.at(0);
  }
  text.erase(0, 1);
  return word;
}

void Try(const std::string& input) {
  Json::Value aliases(Json::objectValue);
  for (const std::string& line : Split(input, "\n")) {
    const auto words = Split(line, "\t");
    Json::Value& recipients = aliases[words[0]] = Json::arrayValue;
    for (std::size_t i = 1; i < words.size(); ++i) recipients.append(words[i]);
  }
  Json::StreamWriterBuilder writer;
  writer["emitUTF8"] = true;
  Put("/var/packages/Brindlecot/etc/settings/aliases.json", Json::writeString(writer, aliases));
  Alias alias;
  if (alias.load() < 0) return;
  assert(alias.ExportAlias("/run/aliases") == 0);
  Json::Value exported(Json::objectValue);
  for (std::string text = Slurp("/run/aliases"); !text.empty(); text.erase(0, 1)) {
    Json::Value& recipients = exported[TakeWord(text)];
    for (; text.at(0) != '\n'; recipients.append(TakeWord(text))) text.erase(0, 2);  // ": " or ", "
  }
  assert(exported == aliases);
}
