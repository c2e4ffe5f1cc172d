#include "system/wait.h"

#include <thread>

bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}
