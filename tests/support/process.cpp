#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

extern char** environ;

namespace vxtest {
namespace {

long long NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (pid_ > 0 && status_ < 0) {
    Kill();
    Wait(10000);
  }
  if (output_ >= 0) ::close(output_);
}

bool ChildProcess::Start(const std::string& program, const std::vector<std::string>& arguments) {
  if (pid_ > 0) return false;
  int pipeEnds[2];
  if (::pipe2(pipeEnds, O_CLOEXEC) != 0) return false;

  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  ::posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], STDOUT_FILENO);

  std::vector<std::string> argvText;
  argvText.push_back(program);
  argvText.insert(argvText.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& text : argvText) argv.push_back(text.data());
  argv.push_back(nullptr);

  pid_t pid = -1;
  const int rc = ::posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::close(pipeEnds[1]);
  if (rc != 0) {
    ::close(pipeEnds[0]);
    return false;
  }
  pid_ = pid;
  output_ = pipeEnds[0];
  status_ = -1;
  pending_.clear();
  return true;
}

std::string ChildProcess::ReadLine(int timeoutMs) {
  const long long deadline = NowMs() + timeoutMs;
  for (;;) {
    const std::size_t newline = pending_.find('\n');
    if (newline != std::string::npos) {
      std::string line = pending_.substr(0, newline);
      pending_.erase(0, newline + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      return line;
    }
    if (output_ < 0) return std::string();
    const long long left = deadline - NowMs();
    if (left <= 0) return std::string();
    pollfd entry{output_, POLLIN, 0};
    if (::poll(&entry, 1, static_cast<int>(left)) <= 0) continue;
    char chunk[256];
    const ssize_t n = ::read(output_, chunk, sizeof(chunk));
    if (n <= 0) {
      ::close(output_);
      output_ = -1;
      continue;
    }
    pending_.append(chunk, static_cast<std::size_t>(n));
  }
}

void ChildProcess::Interrupt() {
  if (pid_ > 0 && status_ < 0) ::kill(pid_, SIGINT);
}

void ChildProcess::Kill() {
  if (pid_ > 0 && status_ < 0) ::kill(pid_, SIGKILL);
}

int ChildProcess::Wait(int timeoutMs) {
  if (pid_ <= 0) return -1;
  if (status_ >= 0) return status_;
  const long long deadline = NowMs() + timeoutMs;
  for (;;) {
    int raw = 0;
    const pid_t done = ::waitpid(pid_, &raw, WNOHANG);
    if (done == pid_) {
      status_ = WIFSIGNALED(raw) ? 128 + WTERMSIG(raw) : WEXITSTATUS(raw);
      return status_;
    }
    if (done < 0 || NowMs() >= deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

unsigned short ReadListeningPort(ChildProcess& proxy, int timeoutMs, std::string* lines) {
  const std::string prefix = "vxproxy: listening on 127.0.0.1:";
  for (;;) {
    const std::string line = proxy.ReadLine(timeoutMs);
    if (line.empty()) return 0;
    if (lines != nullptr) *lines += line + "\n";
    if (line.rfind(prefix, 0) == 0) {
      return static_cast<unsigned short>(std::stoi(line.substr(prefix.size())));
    }
  }
}

int ThreadCount() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("Threads:", 0) == 0) return std::stoi(line.substr(8));
  }
  return -1;
}

}  // namespace vxtest
