#include "AccountChangeQuestion.h"

#include <QMessageBox>

#include "LoginController.h"
#include "MainLoop.h"

namespace {
void Answer(std::promise<bool>& answer, bool yes) {
  try {
    answer.set_value(yes);
  } catch (const std::future_error&) {
    // answered already
  }
}
}  // namespace

AccountChangeQuestion::AccountChangeQuestion(QWidget& parent, MainLoop& loop, QString text)
    : parent_(&parent), loop_(loop), text_(std::move(text)) {}

AccountChangeQuestion::~AccountChangeQuestion() {
  if (pending_) Answer(*pending_, false);
}

std::function<bool(const AccountSwitch::AccountChange&)> AccountChangeQuestion::Confirm() {
  if (pending_) Answer(*pending_, false);
  auto answer = std::make_shared<std::promise<bool>>();
  pending_ = answer;
  return [answer, parent = parent_, text = text_, &loop = loop_](const AccountSwitch::AccountChange& change) {
    auto asked = answer->get_future();
    loop.Post([answer, parent, text, change] {
      if (!parent) {
        Answer(*answer, false);
        return;
      }
      auto* box = new QMessageBox(QMessageBox::Warning, LoginController::kWarningTitle, text,
                                  QMessageBox::Yes | QMessageBox::No, parent);
      box->setObjectName("accountChangeQuestion");
      box->setInformativeText(QString::fromStdString(change.Details()));
      box->setDefaultButton(QMessageBox::No);
      box->setAttribute(Qt::WA_DeleteOnClose);
      QObject::connect(box, &QMessageBox::finished, box,
                       [answer](int button) { Answer(*answer, button == QMessageBox::Yes); });
      box->open();
    });
    return asked.get();
  };
}
