#include "system/files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "system/program.h"

std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary);
  file << text;
  file.close();
  if (!file) throw Fault("cannot write " + path + ": " + std::strerror(errno));
  Sync({path});
}

void Sync(const std::set<std::string>& paths) {
  std::set<std::string> all;
  for (std::filesystem::path path : paths) {
    if (std::filesystem::exists(path)) all.insert(path);
    do path = path.parent_path();
    while (!std::filesystem::exists(path));
    all.insert(path);
  }
  std::vector<std::string> command = {"sync"};
  command.insert(command.end(), all.begin(), all.end());
  if (!all.empty()) RunOrThrow(command, "not on disk");
}
