#pragma once
// ChildProcess: a program run by a test as a real process, with its standard
// output collected line by line while it runs.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <optional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

class ChildProcess {
 public:
  // Starts program with arguments; environment entries replace or add to the
  // test's own environment.
  // input, when given, is what the program reads on its standard input.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
               const std::map<std::string, std::string>& environment,
               const std::optional<std::string>& input = std::nullopt);
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
  // All the output, once the program has closed it (at its end, say).
  std::string WholeOutput(std::chrono::milliseconds limit);
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
