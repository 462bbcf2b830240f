#pragma once
// What a screen reader sees of the applications of a session: their accessible
// objects on the accessibility bus, found by accessible name, typed into and
// pressed. The desktop suite signs in through the windows this way, as a user
// of assistive technology would.

#include <QDBusConnection>
#include <QRect>
#include <QString>
#include <optional>
#include <string>
#include <vector>

struct AccessibleObject {
  QString service;
  QString path;
};

class AccessibilityBus {
 public:
  // Asks the session bus for the accessibility bus (starting it when the session
  // activates it) and connects; false when there is none.
  bool Connect();
  // GTK 4 applications mark no object as showing: there the objects looked at are
  // the visible ones below visible parents.
  enum class Shown { kShowing, kVisible };
  // The first shown object of that accessible name (and role, when given) in any application.
  std::optional<AccessibleObject> Find(const std::string& name, const std::string& role = {},
                                       Shown shown = Shown::kShowing) const;
  // Where the object is in its window (GTK 4 on X tells no place on the screen).
  std::optional<QRect> Extents(const AccessibleObject& object) const;
  // Every showing object as "role name", for messages when a search fails.
  std::vector<std::string> Describe() const;
  bool SetText(const AccessibleObject& object, const std::string& text) const;
  std::string Text(const AccessibleObject& object) const;
  // The object's first action (a button's press).
  bool Press(const AccessibleObject& object) const;
  // Types into whatever holds the keyboard focus, as the keyboard would.
  bool Type(const std::string& keys) const;
  bool PressKey(int keysym) const;

 private:
  std::vector<AccessibleObject> Applications() const;
  std::vector<AccessibleObject> Children(const AccessibleObject& object) const;
  QString Name(const AccessibleObject& object) const;
  bool Has(const AccessibleObject& object, Shown shown) const;
  QDBusMessage Call(const AccessibleObject& object, const char* interface, const char* method,
                    const QVariantList& arguments = {}) const;

  std::optional<QDBusConnection> bus_;
};
