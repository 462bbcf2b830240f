#pragma once
// WorkerQuestion: the Yes/No questions a settings worker asks in the middle of an
// attempt (another account replaces the saved one, a certificate nobody vouches
// for) and waits for. Each is shown on the main thread, which never waits. A new
// attempt, or a window that goes away, answers what is still open "No": nothing
// changes.

#include <QPointer>
#include <QWidget>
#include <functional>
#include <memory>
#include <string>

#include "AccountSwitch.h"

class MainLoop;

class WorkerQuestion {
 public:
  WorkerQuestion(QWidget& parent, MainLoop& loop);
  ~WorkerQuestion();
  WorkerQuestion(const WorkerQuestion&) = delete;
  WorkerQuestion& operator=(const WorkerQuestion&) = delete;

  struct Text {
    std::string title;
    std::string question;
    std::string details;
    const char* objectName;
  };
  using Ask = std::function<bool(const Text& text)>;
  // The asking of one attempt, for its worker; made on the main thread before the
  // worker starts.
  Ask ForAttempt();
  // The "Warning" before another account replaces the saved one, with what goes.
  static std::function<bool(const AccountSwitch::AccountChange&)> AccountChange(Ask ask, const char* warning);

 private:
  struct Attempt;
  QPointer<QWidget> parent_;
  MainLoop& loop_;
  std::shared_ptr<Attempt> attempt_;
};
