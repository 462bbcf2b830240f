#include "HeldDeletionsBox.h"

#include <QPushButton>

QMessageBox* HeldDeletionsBox::Open(const MassDeletionGuard::Held& held, std::function<void(bool confirm)> answer) {
  auto* box = new QMessageBox(QMessageBox::Warning, "Corvalink Sync",
                              QString("The server no longer lists %1 of the %2 files of \"%3\". They stay on this "
                                      "computer until you decide.")
                                  .arg(held.files)
                                  .arg(held.storageFiles)
                                  .arg(QString::fromStdString(held.storage)));
  box->setObjectName("heldDeletionsQuestion");
  box->setInformativeText("Move them to the Trash, or put them back on the server?");
  QPushButton* trash = box->addButton("Move to Trash", QMessageBox::DestructiveRole);
  QPushButton* restore = box->addButton("Put back on the server", QMessageBox::AcceptRole);
  QPushButton* later = box->addButton("Decide later", QMessageBox::RejectRole);
  // A stray Enter decides nothing.
  box->setDefaultButton(later);
  box->setEscapeButton(later);
  box->setAttribute(Qt::WA_DeleteOnClose);
  QObject::connect(box, &QMessageBox::buttonClicked, box, [=, answer = std::move(answer)](QAbstractButton* button) {
    if (button == trash) answer(true);
    if (button == restore) answer(false);
  });
  box->open();
  return box;
}
