// Helpers the tests share for waiting on a condition and for running a
// command: poll instead of sleeping a fixed time, capture what a program prints.
#pragma once

#include <array>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

namespace vxtest {

// True once done() holds; false when timeoutMs passed first.
inline bool WaitUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Runs a shell command and returns what it printed; status gets its exit
// status as pclose reports it.
inline std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string output;
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return output;
  std::array<char, 512> chunk;
  while (fgets(chunk.data(), chunk.size(), pipe) != nullptr) output += chunk.data();
  const int code = pclose(pipe);
  if (status != nullptr) *status = code;
  return output;
}

}  // namespace vxtest
