#include "apply/basics.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>

Step::Step(const std::string& text) : text_(text) {
  if (isatty(STDOUT_FILENO) != 0) std::cout << text_ << " ..." << std::flush;
}

Step::~Step() {
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  if (isatty(STDOUT_FILENO) != 0) std::cout << '\r';
  std::cout << text_ << ": " << (result_.empty() ? "" : result_ + ", ") << std::fixed << std::setprecision(1)
            << time.count() << " s" << std::endl;
}

std::string RunOrThrow(const std::vector<std::string>& command, const std::string& fault) {
  const Ended ended = RunProgram(command);
  if (ended.status == 0) return ended.output;
  std::string said = ended.output + ended.errors;
  said.erase(said.find_last_not_of('\n') + 1);
  throw Fault(fault + ": " + (said.empty() ? "exit status " + std::to_string(ended.status) : said));
}

void WriteText(const std::string& path, const std::string& text) {
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
