#include "TrayIcon.h"

#include <map>

TrayIcon::TrayIcon(QObject* parent) : QObject(parent) {
  tray_.setContextMenu(&menu_);
  tray_.setIcon(Icon(TrayController::IconName(1)));
}

QIcon TrayIcon::Icon(const std::string& name) {
  // The icons built into the program live in a static library: register them once.
  static const bool registered = [] {
    Q_INIT_RESOURCE(icons);
    return true;
  }();
  (void)registered;
  // The installed theme first (a panel may want the symbolic variant); the copy
  // built into the program when it runs from the build tree.
  const QString qname = QString::fromStdString(name);
  return QIcon::fromTheme(qname, QIcon(":/icons/" + qname + ".svg"));
}

bool TrayIcon::Show() {
  if (!QSystemTrayIcon::isSystemTrayAvailable()) return false;
  tray_.show();
  return true;
}

void TrayIcon::ShowIcon(const std::string& iconName) { tray_.setIcon(Icon(iconName)); }

void TrayIcon::ShowToolTip(const std::string& text) { tray_.setToolTip(QString::fromStdString(text)); }

void TrayIcon::ShowMenu(const std::vector<TrayMenuModel::Entry>& entries) {
  // Entries that stay keep their action, so the number the tray host knows them
  // by stays too: a click that crosses a redraw (a pass ends, "Sync now" comes
  // back) still reaches its entry, and an open menu stays open.
  std::map<std::string, QAction*> existing;
  for (QAction* action : menu_.actions()) existing[action->objectName().toStdString()] = action;
  std::vector<QAction*> wanted;
  std::string previous;
  for (const auto& entry : entries) {
    const std::string key = entry.separator ? "separator after " + previous : entry.id;
    previous = key;
    auto found = existing.find(key);
    QAction* action = nullptr;
    if (found != existing.end()) {
      action = found->second;
      existing.erase(found);
    } else {
      action = new QAction(&menu_);
      action->setObjectName(QString::fromStdString(key));
      action->setSeparator(entry.separator);
      const std::string id = entry.id;
      // Queued: a command may redraw the menu, which must not delete the action
      // whose signal is being delivered.
      connect(action, &QAction::triggered, this, [this, id] {
        if (activate_) activate_(id);
      }, Qt::QueuedConnection);
    }
    if (!entry.separator) {
      action->setText(QString::fromStdString(entry.title));
      action->setEnabled(entry.enabled);
    }
    wanted.push_back(action);
  }
  for (auto& [key, action] : existing) {
    menu_.removeAction(action);
    action->deleteLater();
  }
  for (std::size_t i = 0; i < wanted.size(); ++i) {
    const QList<QAction*> shown = menu_.actions();
    const auto at = static_cast<qsizetype>(i);
    if (at < shown.size() && shown[at] == wanted[i]) continue;
    menu_.removeAction(wanted[i]);  // out of place, or not in the menu yet
    menu_.insertAction(at < menu_.actions().size() ? menu_.actions()[at] : nullptr, wanted[i]);
  }
}

void TrayIcon::Notify(const std::string& title, const std::string& text,
                      const TrayController::NotificationAction& action) {
  notifier_.Notify(QString::fromStdString(title), QString::fromStdString(text), QString::fromStdString(action.title),
                   QString::fromStdString(action.folder));
}
