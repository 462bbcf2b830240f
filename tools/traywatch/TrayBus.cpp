#include "TrayBus.h"

#include <QCoreApplication>
#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QThread>
#include <QTimer>

namespace {
constexpr auto kWatcher = "org.kde.StatusNotifierWatcher";
constexpr auto kNotifications = "org.freedesktop.Notifications";

bool Claim(QObject* object, const char* service, const char* path) {
  auto bus = QDBusConnection::sessionBus();
  return bus.registerObject(path, object, QDBusConnection::ExportAllSlots | QDBusConnection::ExportAllSignals |
                                              QDBusConnection::ExportAllProperties) &&
         bus.registerService(service);
}

void Release(const char* service, const char* path) {
  auto bus = QDBusConnection::sessionBus();
  bus.unregisterService(service);
  bus.unregisterObject(path);
}

}  // namespace

// A call that keeps this process answering while it waits (the client calls the
// tray host and the notification server too). Qt's own waiting with the GUI
// running can miss its wake-up and then waits for ever: the loop ends on the
// answer's signal, and looks every 20 ms besides.
QDBusMessage CallAnswering(const QDBusConnection& bus, const QDBusMessage& call) {
  QDBusPendingCall pending = bus.asyncCall(call, 5000);
  if (!pending.isFinished()) {
    QEventLoop loop;
    QDBusPendingCallWatcher watcher(pending);
    QObject::connect(&watcher, &QDBusPendingCallWatcher::finished, &loop, &QEventLoop::quit);
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
      if (pending.isFinished()) loop.quit();
    });
    look.start(20);
    QTimer::singleShot(6000, &loop, &QEventLoop::quit);
    loop.exec();
  }
  return pending.isFinished() ? pending.reply() : QDBusMessage::createError(QDBusError::Timeout, "no answer");
}

namespace {
QDBusMessage Call(const QDBusMessage& call) { return CallAnswering(QDBusConnection::sessionBus(), call); }

QVariant GetProperty(const QString& service, const QString& path, const QString& interface, const QString& name) {
  QDBusMessage call = QDBusMessage::createMethodCall(service, path, "org.freedesktop.DBus.Properties", "Get");
  call << interface << name;
  QDBusMessage reply = Call(call);
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) return {};
  return reply.arguments().first().value<QDBusVariant>().variant();
}

// One (ia{sv}av) node of a D-Bus menu layout, children included.
void ReadNode(const QDBusArgument& argument, std::vector<TrayEntry>& entries, bool root) {
  int id = 0;
  QVariantMap properties;
  QVariantList children;
  argument.beginStructure();
  argument >> id >> properties;
  argument.beginArray();
  std::vector<QDBusArgument> nodes;
  while (!argument.atEnd()) {
    QDBusVariant child;
    argument >> child;
    nodes.push_back(child.variant().value<QDBusArgument>());
  }
  argument.endArray();
  argument.endStructure();
  if (!root && properties.value("visible", true).toBool()) {
    TrayEntry entry;
    entry.id = id;
    entry.separator = properties.value("type").toString() == "separator";
    entry.label = properties.value("label").toString().replace("__", "_").toStdString();
    entry.enabled = properties.value("enabled", true).toBool();
    entries.push_back(entry);
  }
  for (const auto& node : nodes) ReadNode(node, entries, false);
}
}  // namespace

bool TestTrayHost::Start() { return Claim(this, kWatcher, "/StatusNotifierWatcher"); }
void TestTrayHost::Stop() { Release(kWatcher, "/StatusNotifierWatcher"); }

void TestTrayHost::RegisterStatusNotifierItem(const QString& service) {
  if (!items_.contains(service)) items_.push_back(service);
  emit StatusNotifierItemRegistered(service);
}

void TestTrayHost::RegisterStatusNotifierHost(const QString&) {}

bool TestNotificationServer::Start() { return Claim(this, kNotifications, "/org/freedesktop/Notifications"); }
void TestNotificationServer::Stop() { Release(kNotifications, "/org/freedesktop/Notifications"); }

uint TestNotificationServer::Notify(const QString&, uint, const QString&, const QString& summary, const QString& body,
                                    const QStringList&, const QVariantMap&, int) {
  received.push_back(summary.toStdString() + ": " + body.toStdString());
  return static_cast<uint>(received.size());
}

QStringList TestNotificationServer::GetCapabilities() { return {"body"}; }
void TestNotificationServer::CloseNotification(uint) {}

bool TrayItem::Present() const {
  return QDBusConnection::sessionBus().interface()->isServiceRegistered(service_.section('/', 0, 0));
}

QString TrayItem::Property(const char* name) const {
  return GetProperty(service_, "/StatusNotifierItem", "org.kde.StatusNotifierItem", name).toString();
}

std::string TrayItem::ToolTipTitle() const {
  // (s a(iiay) s s): icon name, pictures, title, text.
  QVariant value = GetProperty(service_, "/StatusNotifierItem", "org.kde.StatusNotifierItem", "ToolTip");
  if (!value.canConvert<QDBusArgument>()) return {};  // the item has gone
  const QDBusArgument argument = value.value<QDBusArgument>();
  QString icon, title, text;
  argument.beginStructure();
  argument >> icon;
  argument.beginArray();
  while (!argument.atEnd()) {
    int width = 0, height = 0;
    QByteArray bytes;
    argument.beginStructure();
    argument >> width >> height >> bytes;
    argument.endStructure();
  }
  argument.endArray();
  argument >> title >> text;
  argument.endStructure();
  return title.toStdString();
}

std::vector<TrayEntry> TrayItem::Menu() const {
  const QString menuPath =
      GetProperty(service_, "/StatusNotifierItem", "org.kde.StatusNotifierItem", "Menu").value<QDBusObjectPath>().path();
  std::vector<TrayEntry> entries;
  if (menuPath.isEmpty()) return entries;  // the item has gone
  QDBusMessage call = QDBusMessage::createMethodCall(service_, menuPath, "com.canonical.dbusmenu", "GetLayout");
  call << 0 << -1 << QStringList();
  QDBusMessage reply = Call(call);
  if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2) return entries;
  ReadNode(reply.arguments().at(1).value<QDBusArgument>(), entries, true);
  return entries;
}

std::string TrayItem::MenuTitles() const {
  std::string titles;
  for (const auto& entry : Menu()) titles += (entry.separator ? std::string("---") : entry.label) + "|";
  return titles;
}

bool TrayItem::Click(const std::string& label) const {
  const QString menuPath =
      GetProperty(service_, "/StatusNotifierItem", "org.kde.StatusNotifierItem", "Menu").value<QDBusObjectPath>().path();
  for (const auto& entry : Menu()) {
    if (entry.separator || entry.label != label) continue;
    QDBusMessage call = QDBusMessage::createMethodCall(service_, menuPath, "com.canonical.dbusmenu", "Event");
    call << entry.id << QString("clicked") << QVariant::fromValue(QDBusVariant(QVariant(0))) << 0u;
    return QDBusConnection::sessionBus().send(call);
  }
  return false;
}

bool PumpUntil(const std::function<bool()>& condition, int milliseconds) {
  QElapsedTimer timer;
  timer.start();
  while (!condition()) {
    if (timer.elapsed() > milliseconds) return false;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    QThread::msleep(20);
  }
  return true;
}
