#include "ChildProcess.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

extern char** environ;

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const std::map<std::string, std::string>& environment,
                           const std::optional<std::string>& input) {
  int pipeFds[2];
  if (pipe(pipeFds) != 0) throw std::runtime_error("pipe failed");
  int inputFds[2] = {-1, -1};
  if (input && pipe(inputFds) != 0) throw std::runtime_error("pipe failed");
  std::map<std::string, std::string> env;
  for (char** entry = environ; *entry; ++entry) {
    std::string text(*entry);
    auto equals = text.find('=');
    if (equals != std::string::npos) env[text.substr(0, equals)] = text.substr(equals + 1);
  }
  for (const auto& [key, value] : environment) env[key] = value;
  std::vector<std::string> envText;
  for (const auto& [key, value] : env) envText.push_back(key + "=" + value);
  std::vector<char*> envp, argv;
  for (auto& text : envText) envp.push_back(text.data());
  envp.push_back(nullptr);
  std::vector<std::string> args{program};
  args.insert(args.end(), arguments.begin(), arguments.end());
  for (auto& text : args) argv.push_back(text.data());
  argv.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    dup2(pipeFds[1], STDOUT_FILENO);
    dup2(pipeFds[1], STDERR_FILENO);
    close(pipeFds[0]);
    close(pipeFds[1]);
    if (input) {
      dup2(inputFds[0], STDIN_FILENO);
      close(inputFds[0]);
      close(inputFds[1]);
    }
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(pipeFds[1]);
  outFd_ = pipeFds[0];
  if (input) {
    // Small texts (a password, an answer) fit in the pipe at once.
    close(inputFds[0]);
    ssize_t written = write(inputFds[1], input->data(), input->size());
    (void)written;
    close(inputFds[1]);
  }
  reader_ = std::thread([this] { Read(); });
}

ChildProcess::~ChildProcess() {
  if (!reaped_) {
    kill(pid_, SIGKILL);
    Wait(std::chrono::milliseconds(5000));
  }
  if (reader_.joinable()) reader_.join();
  if (outFd_ >= 0) close(outFd_);
}

void ChildProcess::Read() {
  std::string pending;
  char buffer[4096];
  for (;;) {
    ssize_t got = read(outFd_, buffer, sizeof buffer);
    if (got <= 0) break;
    pending.append(buffer, static_cast<std::size_t>(got));
    std::size_t newline;
    while ((newline = pending.find('\n')) != std::string::npos) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(pending.substr(0, newline));
      pending.erase(0, newline + 1);
      changed_.notify_all();
    }
  }
  std::lock_guard<std::mutex> lock(mutex_);
  if (!pending.empty()) lines_.push_back(pending);
  ended_ = true;
  changed_.notify_all();
}

bool ChildProcess::WaitForLine(const std::string& text, std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, limit, [&] {
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return ended_;
  }) && [&] {
    for (const auto& line : lines_) {
      if (line.find(text) != std::string::npos) return true;
    }
    return false;
  }();
}

int ChildProcess::CountLines(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& line : lines_) count += line.find(text) != std::string::npos;
  return count;
}

int ChildProcess::CountExactLines(const std::string& text) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = 0;
  for (const auto& line : lines_) count += line == text;
  return count;
}

std::string ChildProcess::Output() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::string all;
  for (const auto& line : lines_) all += line + "\n";
  return all;
}

std::string ChildProcess::WholeOutput(std::chrono::milliseconds limit) {
  {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, limit, [&] { return ended_; });
  }
  return Output();
}

void ChildProcess::Signal(int signal) {
  if (!reaped_) kill(pid_, signal);
}

int ChildProcess::Wait(std::chrono::milliseconds limit) {
  if (reaped_) return exitCode_;
  auto end = std::chrono::steady_clock::now() + limit;
  for (;;) {
    int status = 0;
    pid_t done = waitpid(pid_, &status, WNOHANG);
    if (done == pid_) {
      reaped_ = true;
      exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      return exitCode_;
    }
    if (std::chrono::steady_clock::now() >= end) {
      kill(pid_, SIGKILL);
      waitpid(pid_, &status, 0);
      reaped_ = true;
      exitCode_ = -1;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}
