#pragma once
// TempHome: a fresh temporary HOME for one test, removed afterwards, with the
// process-wide singletons reset so that no state leaks between tests.

#include <string>

class TempHome {
 public:
  TempHome();
  ~TempHome();
  TempHome(const TempHome&) = delete;
  TempHome& operator=(const TempHome&) = delete;

  const std::string& path() const { return path_; }
  std::string root() const { return path_ + "/Corvalink"; }
  std::string settings() const { return root() + "/.Settings"; }

  // The whole text of the files of a log kind written today ("CVMainLogs").
  std::string ReadLog(const std::string& kind) const;

 private:
  std::string path_;
  std::string previousHome_;
  bool hadHome_ = false;
};
