#include "change/basics.h"

#include <unistd.h>

#include <ctime>
#include <iomanip>
#include <iostream>

Step::Step(const std::string& text) : text_(text) {
  if (isatty(STDOUT_FILENO) != 0) std::cout << text_ << " ..." << std::flush;
}

Step::~Step() {
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
  if (isatty(STDOUT_FILENO) != 0) std::cout << '\r';
  if (!result_.empty()) result_ += ", ";
  std::cout << text_ << ": " << result_ << std::fixed << std::setprecision(1) << time.count() << " s"
            << std::endl;
}

std::string TimeOfDay(const char* format, long seconds) {
  const std::time_t time = std::time(nullptr) + seconds;
  std::tm local = {};
  char text[32] = "";
  std::strftime(text, sizeof text, format, localtime_r(&time, &local));
  return text;
}
