// A second process for tests where processes meet: starts a program, reads
// the lines it prints, and kills or reaps it. A child still alive when the
// object goes away is killed, so a failing test leaves no process behind.
//
//   vxtest::ChildProcess child;
//   ASSERT_TRUE(child.Start(VX_BINARY_DIR "/tests/sem_child", {"hold", name}));
//   ASSERT_EQ("locked", child.ReadLine(5000));
//   child.Kill();
#pragma once

#include <string>
#include <vector>

namespace vxtest {

class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Starts the program with the arguments; its standard output goes to a
  // pipe that ReadLine reads. False when the program cannot be started.
  bool Start(const std::string& program, const std::vector<std::string>& arguments);

  // The next line the child printed, without its line end; empty when no
  // whole line arrives within the time-out or the child closed its output.
  std::string ReadLine(int timeoutMs);

  // Asks the child to stop, as Ctrl-C does (SIGINT).
  void Interrupt();

  // Ends the child at once with SIGKILL; it gets no chance to clean up.
  void Kill();

  // Waits for the child to end: its exit code, 128 + the signal number when
  // a signal ended it, or -1 when it still runs after the time-out.
  int Wait(int timeoutMs);

 private:
  int pid_ = -1;
  int output_ = -1;
  int status_ = -1;
  std::string pending_;
};

// Reads what a started "vxproxy run" prints up to its line
// "vxproxy: listening on 127.0.0.1:PORT" and returns the port; 0 when the
// output ends or stalls first. Every line read is added to lines if given.
unsigned short ReadListeningPort(ChildProcess& proxy, int timeoutMs, std::string* lines = nullptr);

// Threads of this process right now, as the system counts them (-1 when it
// cannot tell).
int ThreadCount();

}  // namespace vxtest
