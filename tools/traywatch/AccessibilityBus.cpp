#include "AccessibilityBus.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QProcessEnvironment>
#include <functional>

#include "TrayBus.h"

namespace {
constexpr auto kRoot = "/org/a11y/atspi/accessible/root";
constexpr auto kRegistry = "org.a11y.atspi.Registry";
constexpr auto kKeyboard = "/org/a11y/atspi/registry/deviceeventcontroller";
constexpr uint kStateShowing = 25;
constexpr uint kStateVisible = 30;
constexpr uint kCoordinatesOfWindow = 1;
constexpr uint kKeySym = 3;
constexpr uint kKeyString = 4;

bool Answered(const QDBusMessage& reply) { return reply.type() == QDBusMessage::ReplyMessage; }
}  // namespace

bool AccessibilityBus::Connect() {
  auto session = QDBusConnection::sessionBus();
  // The accessibility bus and its registry start on demand from the session bus;
  // they type on the display this process sees.
  QDBusMessage environment = QDBusMessage::createMethodCall("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                            "org.freedesktop.DBus", "UpdateActivationEnvironment");
  qDBusRegisterMetaType<QMap<QString, QString>>();
  const auto own = QProcessEnvironment::systemEnvironment();
  environment << QVariant::fromValue(QMap<QString, QString>{{"DISPLAY", own.value("DISPLAY")},
                                                            {"XAUTHORITY", own.value("XAUTHORITY")}});
  CallAnswering(session, environment);
  QDBusMessage reply =
      CallAnswering(session, QDBusMessage::createMethodCall("org.a11y.Bus", "/org/a11y/bus", "org.a11y.Bus", "GetAddress"));
  if (!Answered(reply) || reply.arguments().isEmpty()) return false;
  bus_ = QDBusConnection::connectToBus(reply.arguments().first().toString(), "corvalink-accessibility");
  return bus_->isConnected();
}

QDBusMessage AccessibilityBus::Call(const AccessibleObject& object, const char* interface, const char* method,
                                    const QVariantList& arguments) const {
  if (!bus_) return QDBusMessage::createError(QDBusError::Disconnected, "not connected");
  QDBusMessage call = QDBusMessage::createMethodCall(object.service, object.path, interface, method);
  call.setArguments(arguments);
  return CallAnswering(*bus_, call);
}

std::vector<AccessibleObject> AccessibilityBus::Applications() const {
  std::vector<AccessibleObject> applications;
  if (!bus_) return applications;
  for (const QString& name : bus_->interface()->registeredServiceNames().value()) {
    if (name.startsWith(':') && name != bus_->baseService()) applications.push_back({name, kRoot});
  }
  return applications;
}

std::vector<AccessibleObject> AccessibilityBus::Children(const AccessibleObject& object) const {
  std::vector<AccessibleObject> children;
  QDBusMessage reply = Call(object, "org.a11y.atspi.Accessible", "GetChildren");
  if (!Answered(reply) || reply.arguments().isEmpty()) return children;
  const auto array = reply.arguments().first().value<QDBusArgument>();
  array.beginArray();
  while (!array.atEnd()) {
    QString service;
    QDBusObjectPath path;
    array.beginStructure();
    array >> service >> path;
    array.endStructure();
    children.push_back({service, path.path()});
  }
  array.endArray();
  return children;
}

QString AccessibilityBus::Name(const AccessibleObject& object) const {
  QDBusMessage reply =
      Call(object, "org.freedesktop.DBus.Properties", "Get", {"org.a11y.atspi.Accessible", "Name"});
  if (!Answered(reply) || reply.arguments().isEmpty()) return {};
  return reply.arguments().first().value<QDBusVariant>().variant().toString();
}

bool AccessibilityBus::Has(const AccessibleObject& object, Shown shown) const {
  QDBusMessage reply = Call(object, "org.a11y.atspi.Accessible", "GetState");
  if (!Answered(reply) || reply.arguments().isEmpty()) return false;
  QList<uint> states;
  reply.arguments().first().value<QDBusArgument>() >> states;
  const uint bit = shown == Shown::kShowing ? kStateShowing : kStateVisible;
  return !states.isEmpty() && (states.first() & (1u << bit)) != 0;
}

namespace {
// Depth first through the showing objects; the visit says whether to stop.
void Walk(const AccessibleObject& object, int depth,
          const std::function<std::vector<AccessibleObject>(const AccessibleObject&)>& children,
          const std::function<bool(const AccessibleObject&, int)>& visit, bool& stop) {
  for (const auto& child : children(object)) {
    if (stop) return;
    if (visit(child, depth)) {
      stop = true;
      return;
    }
    Walk(child, depth + 1, children, visit, stop);
  }
}
}  // namespace

std::optional<AccessibleObject> AccessibilityBus::Find(const std::string& name, const std::string& role,
                                                       Shown shown) const {
  std::optional<AccessibleObject> found;
  bool stop = false;
  const auto shownChildren = [this, shown](const AccessibleObject& object) {
    std::vector<AccessibleObject> children;
    for (const auto& child : Children(object)) {
      if (Has(child, shown)) children.push_back(child);
    }
    return children;
  };
  const auto roleMatches = [&](const AccessibleObject& object) {
    return role.empty() || Call(object, "org.a11y.atspi.Accessible", "GetRoleName").arguments().value(0) ==
                               QString::fromStdString(role);
  };
  for (const auto& application : Applications()) {
    Walk(application, 0, shownChildren,
         [&](const AccessibleObject& object, int) {
           if (Name(object).toStdString() != name || !roleMatches(object)) return false;
           found = object;
           return true;
         },
         stop);
    if (found) break;
  }
  return found;
}

std::vector<std::string> AccessibilityBus::Describe() const {
  std::vector<std::string> lines;
  bool stop = false;
  for (const auto& application : Applications()) {
    Walk(application, 0, [this](const AccessibleObject& object) { return Children(object); },
         [&](const AccessibleObject& object, int depth) {
           QDBusMessage role = Call(object, "org.a11y.atspi.Accessible", "GetRoleName");
           lines.push_back(std::string(depth * 2, ' ') +
                           (Answered(role) ? role.arguments().value(0).toString().toStdString() : "?") + " \"" +
                           Name(object).toStdString() + "\"" + (Has(object, Shown::kShowing) ? "" : " (hidden)") +
                           (Has(object, Shown::kVisible) ? "" : " (invisible)"));
           return false;
         },
         stop);
  }
  return lines;
}

std::optional<QRect> AccessibilityBus::Extents(const AccessibleObject& object) const {
  QDBusMessage reply = Call(object, "org.a11y.atspi.Component", "GetExtents", {kCoordinatesOfWindow});
  if (!Answered(reply) || reply.arguments().isEmpty()) return std::nullopt;
  int x = 0, y = 0, width = 0, height = 0;
  const auto box = reply.arguments().first().value<QDBusArgument>();
  box.beginStructure();
  box >> x >> y >> width >> height;
  box.endStructure();
  return QRect(x, y, width, height);
}

bool AccessibilityBus::SetText(const AccessibleObject& object, const std::string& text) const {
  QDBusMessage reply =
      Call(object, "org.a11y.atspi.EditableText", "SetTextContents", {QString::fromStdString(text)});
  return Answered(reply) && reply.arguments().value(0).toBool();
}

std::string AccessibilityBus::Text(const AccessibleObject& object) const {
  QDBusMessage reply = Call(object, "org.a11y.atspi.Text", "GetText", {0, -1});
  return Answered(reply) ? reply.arguments().value(0).toString().toStdString() : std::string();
}

bool AccessibilityBus::Press(const AccessibleObject& object) const {
  QDBusMessage reply = Call(object, "org.a11y.atspi.Action", "DoAction", {0});
  return Answered(reply) && reply.arguments().value(0).toBool();
}

bool AccessibilityBus::Type(const std::string& keys) const {
  return Answered(Call({kRegistry, kKeyboard}, "org.a11y.atspi.DeviceEventController", "GenerateKeyboardEvent",
                       {0, QString::fromStdString(keys), kKeyString}));
}

bool AccessibilityBus::PressKey(int keysym) const {
  return Answered(Call({kRegistry, kKeyboard}, "org.a11y.atspi.DeviceEventController", "GenerateKeyboardEvent",
                       {keysym, QString(), kKeySym}));
}
