#pragma once
// AccountChangeQuestion: the "Warning" a settings worker asks before another
// account replaces the saved one. The worker waits for the answer; the question
// is shown on the main thread, which never waits. A window that goes away while
// a worker waits answers "No": nothing changes.

#include <QPointer>
#include <QString>
#include <QWidget>
#include <functional>
#include <future>
#include <memory>

#include "AccountSwitch.h"

class MainLoop;

class AccountChangeQuestion {
 public:
  AccountChangeQuestion(QWidget& parent, MainLoop& loop, QString text);
  ~AccountChangeQuestion();
  AccountChangeQuestion(const AccountChangeQuestion&) = delete;
  AccountChangeQuestion& operator=(const AccountChangeQuestion&) = delete;

  // The confirm of one attempt; made on the main thread before the worker starts.
  std::function<bool(const AccountSwitch::AccountChange&)> Confirm();

 private:
  QPointer<QWidget> parent_;
  MainLoop& loop_;
  QString text_;
  std::shared_ptr<std::promise<bool>> pending_;
};
