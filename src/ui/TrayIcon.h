#pragma once
// TrayIcon: the tray item drawn by Qt (a StatusNotifierItem with its D-Bus menu
// where a tray host is on the session bus). It draws what TrayController decides
// and hands the chosen entry back to it.

#include <QMenu>
#include <QObject>
#include <QSystemTrayIcon>
#include <functional>

#include "DesktopNotifier.h"
#include "TrayController.h"

class TrayIcon : public QObject, public TrayController::View {
  Q_OBJECT
 public:
  explicit TrayIcon(QObject* parent = nullptr);
  void SetActivateHandler(std::function<void(const std::string& id)> handler) { activate_ = std::move(handler); }
  // Shows the item; false when no tray host is there to show it.
  bool Show();
  static QIcon Icon(const std::string& name);
  // The menu as the tray host is given it.
  const QMenu& Menu() const { return menu_; }

  void ShowIcon(const std::string& iconName) override;
  void ShowToolTip(const std::string& text) override;
  void ShowMenu(const std::vector<TrayMenuModel::Entry>& entries) override;
  void Notify(const std::string& title, const std::string& text, const TrayController::NotificationAction& action) override;

 private:
  QSystemTrayIcon tray_;
  QMenu menu_;
  DesktopNotifier notifier_;
  std::function<void(const std::string&)> activate_;
};
