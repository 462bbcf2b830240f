#include "DesktopNotifier.h"

#include <QDBusConnection>
#include <QDesktopServices>
#include <QUrl>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>

#include "CVEventLogger.h"

DesktopNotifier::DesktopNotifier(QObject* parent) : QObject(parent) {
  QDBusConnection::sessionBus().connect("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                        "org.freedesktop.Notifications", "ActionInvoked", this,
                                        SLOT(ActionInvoked(uint, QString)));
}

void DesktopNotifier::ActionInvoked(uint id, const QString& key) {
  if (key != "open-folder" || !folders_.contains(id)) return;
  QDesktopServices::openUrl(QUrl::fromLocalFile(folders_.take(id)));
}

void DesktopNotifier::Notify(const QString& title, const QString& text, const QString& actionTitle,
                             const QString& actionFolder) {
  QDBusMessage call = QDBusMessage::createMethodCall("org.freedesktop.Notifications", "/org/freedesktop/Notifications",
                                                     "org.freedesktop.Notifications", "Notify");
  QVariantMap hints;
  hints.insert("desktop-entry", QStringLiteral("corvalink-sync"));
  QStringList actions;
  if (!actionTitle.isEmpty()) actions << "open-folder" << actionTitle;
  call << QStringLiteral("Corvalink Sync") << 0u << QStringLiteral("corvalink-sync") << title << text << actions << hints
       << -1;
  auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), this);
  connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, title, text, actionFolder](QDBusPendingCallWatcher* done) {
    QDBusPendingReply<unsigned> reply = *done;
    if (!reply.isError() && !actionFolder.isEmpty()) folders_.insert(reply.value(), actionFolder);
    if (reply.isError()) {
      CVEventLogger::WriteMainLogMessage("DesktopNotifier - Notify -> not shown (" +
                                         reply.error().message().toStdString() + "): " + title.toStdString() + ", " +
                                         text.toStdString());
    }
    done->deleteLater();
  });
}
