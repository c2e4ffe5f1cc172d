#include "mail/listeners.h"

#include <arpa/inet.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "system/files.h"
#include "system/text.h"

namespace {

namespace fs = std::filesystem;

// An address as the kernel prints it: 32-bit words in the machine's byte order, in hexadecimal.
std::string AddressOf(const std::string& hex) {
  std::uint32_t words[4] = {};
  for (size_t i = 0; i < hex.size() / 8; ++i) {
    words[i] = static_cast<std::uint32_t>(std::stoul(hex.substr(8 * i, 8), nullptr, 16));
  }
  char text[INET6_ADDRSTRLEN] = "";
  inet_ntop(hex.size() == 8 ? AF_INET : AF_INET6, words, text, sizeof text);
  return text;
}

// Path of its executable, as the process itself sees it. From another mount namespace, the path of one in a
// chroot begins with its root.
std::string ProgramOf(const fs::path& process) {
  std::error_code gone;
  const std::string program = fs::read_symlink(process / "exe", gone);
  const std::string root = fs::read_symlink(process / "root", gone);
  return root.size() > 1 && StartsWith(program, root + "/") ? program.substr(root.size()) : program;
}

// True for a socket that root, or the daemon's own account, has made.
bool IsTrusted(uid_t uid, const std::string& account) {
  if (uid == 0) return true;
  const passwd* known = account.empty() ? nullptr : getpwnam(account.c_str());
  return known != nullptr && known->pw_uid == uid;
}

}  // namespace

std::vector<TcpListener> ParseTcpListeners(const std::string& text) {
  std::vector<TcpListener> found;
  for (const std::string& line : Lines(text)) {
    // number, ADDRESS:PORT, the other end, state, queues, timer, retransmissions, user, timeout, inode
    const std::vector<std::string> words = Words(line);
    if (words.size() < 10 || words[3] != "0A") continue;  // TCP_LISTEN
    const size_t colon = words[1].find(':');
    found.push_back({AddressOf(words[1].substr(0, colon)),
                     std::to_string(std::stoul(words[1].substr(colon + 1), nullptr, 16)),
                     static_cast<uid_t>(std::stoul(words[7])), std::stoul(words[9])});
  }
  return found;
}

std::vector<TcpListener> TcpListeners() {
  return ParseTcpListeners(ReadFile("/proc/thread-self/net/tcp") + ReadFile("/proc/thread-self/net/tcp6"));
}

std::vector<std::string> ParseUnixListeners(const std::string& text) {
  std::vector<std::string> paths;
  for (const std::string& line : Lines(text)) {
    // number, references, protocol, flags, type, state, inode, path
    const std::vector<std::string> words = Words(line);
    if (words.size() > 7 && words[3] == "00010000") paths.push_back(words[7]);  // __SO_ACCEPTCON
  }
  return paths;
}

std::vector<Owner> OwnersOf(const TcpListener& listener) {
  const std::string socket = "socket:[" + std::to_string(listener.inode) + "]";
  std::vector<Owner> owners;
  std::error_code gone;  // any process may end at any moment
  for (const fs::directory_entry& process : fs::directory_iterator("/proc")) {
    const pid_t pid = std::atoi(process.path().filename().c_str());
    if (pid <= 0) continue;
    const fs::directory_iterator files(process.path() / "fd", gone);
    const bool open = std::any_of(begin(files), end(files), [&](const fs::directory_entry& file) {
      return fs::read_symlink(file.path(), gone) == socket;
    });
    struct stat status = {};
    if (!open || stat(process.path().c_str(), &status) != 0) continue;
    owners.push_back({pid, status.st_uid, ProgramOf(process.path())});
  }
  return owners;
}

bool Belongs(const TcpListener& listener, const Daemon& daemon) {
  if (!IsTrusted(listener.uid, daemon.account)) return false;
  const std::vector<Owner> owners = OwnersOf(listener);
  return std::any_of(owners.begin(), owners.end(),
                     [&](const Owner& owner) { return StartsWith(owner.program, daemon.program); });
}

std::vector<TcpListener> ForeignListeners(const std::string& port, const std::string& account) {
  std::vector<TcpListener> found;
  for (const TcpListener& listener : TcpListeners()) {
    if (listener.port == port && !IsTrusted(listener.uid, account)) found.push_back(listener);
  }
  return found;
}

bool IsListening(const std::string& port) {
  const std::vector<TcpListener> all = TcpListeners();
  return std::any_of(all.begin(), all.end(),
                     [&](const TcpListener& listener) { return listener.port == port; });
}
