#include "TrayIcon.h"


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
  // The same entries with new titles (a progress line, "Start sync"): changed in
  // place, so that an open menu stays open.
  const QList<QAction*> actions = menu_.actions();
  bool sameShape = actions.size() == static_cast<qsizetype>(entries.size());
  for (qsizetype i = 0; sameShape && i < actions.size(); ++i) {
    sameShape = actions[i]->objectName().toStdString() == entries[static_cast<std::size_t>(i)].id &&
                actions[i]->isSeparator() == entries[static_cast<std::size_t>(i)].separator;
  }
  if (sameShape) {
    for (qsizetype i = 0; i < actions.size(); ++i) {
      actions[i]->setText(QString::fromStdString(entries[static_cast<std::size_t>(i)].title));
      actions[i]->setEnabled(entries[static_cast<std::size_t>(i)].enabled);
    }
    return;
  }
  menu_.clear();
  for (const auto& entry : entries) {
    QAction* action = entry.separator ? menu_.addSeparator() : menu_.addAction(QString::fromStdString(entry.title));
    action->setObjectName(QString::fromStdString(entry.id));
    if (entry.separator) continue;
    action->setEnabled(entry.enabled);
    const std::string id = entry.id;
    // Queued: a command may redraw the menu, which must not delete the action
    // whose signal is being delivered.
    connect(action, &QAction::triggered, this, [this, id] {
      if (activate_) activate_(id);
    }, Qt::QueuedConnection);
  }
}

void TrayIcon::Notify(const std::string& title, const std::string& text,
                      const TrayController::NotificationAction& action) {
  notifier_.Notify(QString::fromStdString(title), QString::fromStdString(text), QString::fromStdString(action.title),
                   QString::fromStdString(action.folder));
}
