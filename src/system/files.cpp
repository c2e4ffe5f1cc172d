#include "system/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

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
  for (const std::string& path : all) {
    const int file = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    const bool synced = file >= 0 && fsync(file) == 0;
    const std::string reason = std::strerror(errno);
    close(file);
    if (!synced) throw Fault(path + " is not on disk: " + reason);
  }
}
