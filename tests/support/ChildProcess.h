#pragma once
// ChildProcess: a program run by a test as a real process, with its standard
// output collected line by line while it runs.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ChildProcess {
 public:
  // Starts program with arguments; environment entries replace or add to the
  // test's own environment.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Waits until a line holding text has come (counting from the start); false on time-out.
  bool WaitForLine(const std::string& text, std::chrono::milliseconds limit);
  // How many lines hold text so far.
  int CountLines(const std::string& text);
  // How many lines are exactly text.
  int CountExactLines(const std::string& text);
  std::string Output();
  void Signal(int signal);
  // Waits for the end; the exit code, or -1 when it did not end in time (it is killed then).
  int Wait(std::chrono::milliseconds limit);

 private:
  void Read();

  pid_t pid_ = -1;
  int outFd_ = -1;
  std::thread reader_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool ended_ = false;
  int exitCode_ = -1;
  bool reaped_ = false;
};
