#include "WorkerQuestion.h"

#include <QMessageBox>
#include <future>
#include <mutex>
#include <vector>

#include "LoginController.h"
#include "MainLoop.h"

struct WorkerQuestion::Attempt {
  std::mutex lock;
  bool over = false;
  std::vector<std::shared_ptr<std::promise<bool>>> open;

  void End() {
    std::lock_guard<std::mutex> guard(lock);
    over = true;
    for (auto& answer : open) Answer(*answer, false);
  }
  static void Answer(std::promise<bool>& answer, bool yes) {
    try {
      answer.set_value(yes);
    } catch (const std::future_error&) {
      // answered already
    }
  }
};

WorkerQuestion::WorkerQuestion(QWidget& parent, MainLoop& loop) : parent_(&parent), loop_(loop) {}

WorkerQuestion::~WorkerQuestion() {
  if (attempt_) attempt_->End();
}

WorkerQuestion::Ask WorkerQuestion::ForAttempt() {
  if (attempt_) attempt_->End();
  auto attempt = std::make_shared<Attempt>();
  attempt_ = attempt;
  return [attempt, parent = parent_, &loop = loop_](const Text& text) {
    auto answer = std::make_shared<std::promise<bool>>();
    auto asked = answer->get_future();
    {
      std::lock_guard<std::mutex> guard(attempt->lock);
      if (attempt->over) return false;
      attempt->open.push_back(answer);
    }
    loop.Post([answer, parent, text] {
      if (!parent) {
        Attempt::Answer(*answer, false);
        return;
      }
      auto* box = new QMessageBox(QMessageBox::Warning, QString::fromStdString(text.title),
                                  QString::fromStdString(text.question), QMessageBox::Yes | QMessageBox::No, parent);
      box->setObjectName(text.objectName);
      box->setInformativeText(QString::fromStdString(text.details));
      box->setDefaultButton(QMessageBox::No);
      box->setAttribute(Qt::WA_DeleteOnClose);
      QObject::connect(box, &QMessageBox::finished, box,
                       [answer](int button) { Attempt::Answer(*answer, button == QMessageBox::Yes); });
      box->open();
    });
    return asked.get();
  };
}

std::function<bool(const AccountSwitch::AccountChange&)> WorkerQuestion::AccountChange(Ask ask, const char* warning) {
  return [ask = std::move(ask), warning](const AccountSwitch::AccountChange& change) {
    return ask({LoginController::kWarningTitle, warning, change.Details(), "accountChangeQuestion"});
  };
}
