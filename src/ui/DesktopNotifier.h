#pragma once
// DesktopNotifier: desktop notifications over org.freedesktop.Notifications on
// the session bus. The call is asynchronous: the main thread never waits on the
// notification server. Without one, the notification goes to the main log. A
// notification may carry one button that opens a folder.

#include <QMap>
#include <QObject>
#include <QString>

class DesktopNotifier : public QObject {
  Q_OBJECT
 public:
  explicit DesktopNotifier(QObject* parent = nullptr);
  void Notify(const QString& title, const QString& text, const QString& actionTitle = {},
              const QString& actionFolder = {});

 private slots:
  void ActionInvoked(uint id, const QString& key);

 private:
  QMap<uint, QString> folders_;  // the folder of each notification sent with a button
};
