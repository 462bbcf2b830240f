#include "WidgetHelpers.h"

#include <QDateTime>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>

namespace widgets {

void Name(QWidget& widget, const char* objectName, const QString& accessible) {
  widget.setObjectName(objectName);
  widget.setAccessibleName(accessible);
}

void ShowMessage(QWidget* parent, const std::string& text, const char* objectName) {
  auto* box = new QMessageBox(QMessageBox::Information, "Corvalink Sync", QString::fromStdString(text), QMessageBox::Ok,
                              parent);
  box->setObjectName(objectName);
  box->setAttribute(Qt::WA_DeleteOnClose);
  box->setWindowModality(parent ? Qt::WindowModal : Qt::NonModal);
  box->show();
}

QIcon StorageStateIcon(const std::string& iconStorage) {
  const QColor colour = iconStorage == "storage_sync_green"    ? QColor(0x2e, 0xa0, 0x43)
                        : iconStorage == "storage_sync_yellow" ? QColor(0xd9, 0xa4, 0x06)
                                                               : QColor(0x8a, 0x8a, 0x8a);
  QPixmap dot(16, 16);
  dot.fill(Qt::transparent);
  QPainter painter(&dot);
  painter.setRenderHint(QPainter::Antialiasing);
  painter.setPen(Qt::NoPen);
  painter.setBrush(colour);
  painter.drawEllipse(2, 2, 12, 12);
  return QIcon(dot);
}

void AskFirst(QWidget& parent, const char* objectName, const std::function<void(const Ask&)>& action) {
  std::string title, question;
  action([&](const std::string& t, const std::string& q) {
    title = t;
    question = q;
    return false;
  });
  if (question.empty()) return;
  auto* box = new QMessageBox(QMessageBox::Question, QString::fromStdString(title.empty() ? "Corvalink Sync" : title),
                              QString::fromStdString(question), QMessageBox::Yes | QMessageBox::No, &parent);
  box->setObjectName(objectName);
  box->setDefaultButton(QMessageBox::No);
  box->setAttribute(Qt::WA_DeleteOnClose);
  QObject::connect(box, &QMessageBox::finished, &parent, [action](int button) {
    if (button == QMessageBox::Yes) action([](const std::string&, const std::string&) { return true; });
  });
  box->open();
}

void ShowInFront(QWidget& window) {
  window.show();
  window.raise();
  window.activateWindow();
}

QString DateText(const std::optional<std::chrono::sys_time<std::chrono::milliseconds>>& date) {
  if (!date) return "";
  return QDateTime::fromMSecsSinceEpoch(date->time_since_epoch().count()).toString("yyyy-MM-dd HH:mm");
}

}  // namespace widgets
