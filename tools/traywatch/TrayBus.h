#pragma once
// The session bus services of a desktop, played by a program of ours: a tray host
// (the StatusNotifierWatcher that items register with) and a notification server
// that keeps what it is sent. TrayItem reads a registered item and its D-Bus menu
// and clicks its entries, as a panel does.

#include <QDBusConnection>
#include <QObject>
#include <QStringList>
#include <QVariantMap>
#include <functional>
#include <string>
#include <vector>

class TestTrayHost : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.kde.StatusNotifierWatcher")
  Q_PROPERTY(bool IsStatusNotifierHostRegistered READ hostRegistered)
  Q_PROPERTY(int ProtocolVersion READ protocolVersion)
  Q_PROPERTY(QStringList RegisteredStatusNotifierItems READ items)
 public:
  // Takes the watcher's name on the session bus; false when it cannot.
  bool Start();
  void Stop();
  bool hostRegistered() const { return true; }
  int protocolVersion() const { return 0; }
  QStringList items() const { return items_; }

 public slots:
  void RegisterStatusNotifierItem(const QString& service);
  void RegisterStatusNotifierHost(const QString& service);

 signals:
  void StatusNotifierItemRegistered(const QString& service);

 private:
  QStringList items_;
};

class TestNotificationServer : public QObject {
  Q_OBJECT
  Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")
 public:
  bool Start();
  void Stop();
  // "title: text" of each notification received.
  std::vector<std::string> received;

 public slots:
  uint Notify(const QString& appName, uint replacesId, const QString& appIcon, const QString& summary,
              const QString& body, const QStringList& actions, const QVariantMap& hints, int timeout);
  QStringList GetCapabilities();
  void CloseNotification(uint id);
};

// One item as the host sees it, named by the service it registered.
struct TrayEntry {
  int id = 0;
  std::string label;
  bool enabled = true;
  bool separator = false;
};

class TrayItem {
 public:
  explicit TrayItem(QString service) : service_(std::move(service)) {}
  // False once the client that registered the item has left the bus.
  bool Present() const;
  QString Property(const char* name) const;  // a string property of the item
  std::string ToolTipTitle() const;
  std::vector<TrayEntry> Menu() const;
  // "Title|---|Title|" of the entries that are shown.
  std::string MenuTitles() const;
  // Clicks the first entry with that label; false when there is none.
  bool Click(const std::string& label) const;

 private:
  QString service_;
};

// A D-Bus call that keeps this process answering while it waits (the client calls
// the services this process plays).
class QDBusMessage;
QDBusMessage CallAnswering(const QDBusConnection& bus, const QDBusMessage& call);

// Runs Qt's events until the condition holds or the time is up.
bool PumpUntil(const std::function<bool()>& condition, int milliseconds);
