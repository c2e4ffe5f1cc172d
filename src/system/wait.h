/// Waits for a condition.
#pragma once

#include <chrono>
#include <functional>

/// Waits until the condition holds. False when it does not within the limit.
bool WaitFor(const std::function<bool()>& condition, std::chrono::seconds limit);
