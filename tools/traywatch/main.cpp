// corvalink-traywatch: plays a desktop's tray host and notification server on the
// session bus, prints what the tray item of a client shows as it changes, and
// works a scenario of steps on it, as a user would with the panel, the windows
// and the file manager's menu. For the desktop demo and for trying the tray
// where no panel runs.

#include <QApplication>
#include <QMenu>
#include <QPixmap>
#include <cstdlib>
#include <iostream>
#include <regex>
#include <string>
#include <vector>

#include "AccessibilityBus.h"
#include "Screenshot.h"
#include "TrayBus.h"
#include "corvalink_fm_client.h"

namespace {
const char* kUsage =
    "usage: corvalink-traywatch STEP...\n"
    "  --wait-menu REGEX   until the menu's titles (\"A|---|B|\") match\n"
    "  --wait-icon NAME    until the item shows that icon\n"
    "  --click TITLE       activate the menu entry with that title\n"
    "  --run COMMAND       run a shell command and wait for it\n"
    "  --press NAME        press the control of that accessible name in a window\n"
    "                      (the client runs with QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1)\n"
    "  --file-manager 'COMMAND PATH'  what a file manager's menu entry sends\n"
    "                      (ShareToInternal, ShareToExternal, ViewVersions)\n"
    "  --screenshot-menu FILE  draw the menu as read from the bus, as a panel\n"
    "                      would open it, and save a picture of it\n"
    "  --screenshot FILE   a PNG of the whole display\n"
    "Each wait gives up after 120 s (exit 1). Prints \"tray host ready\" once it serves.\n";

struct Shown {
  std::string icon, tooltip, menu;
  std::size_t notifications = 0;
};

// Prints what changed since the last look.
void Report(const TrayItem& item, const TestNotificationServer& notifications, Shown& shown) {
  const std::string icon = item.Property("IconName").toStdString();
  const std::string tooltip = item.ToolTipTitle();
  const std::string menu = item.MenuTitles();
  if (icon != shown.icon) std::cout << "icon: " << (shown.icon = icon) << std::endl;
  if (tooltip != shown.tooltip) std::cout << "tool tip: " << (shown.tooltip = tooltip) << std::endl;
  if (menu != shown.menu) std::cout << "menu: " << (shown.menu = menu) << std::endl;
  for (; shown.notifications < notifications.received.size(); ++shown.notifications) {
    std::cout << "notification: " << notifications.received[shown.notifications] << std::endl;
  }
}
}  // namespace

int main(int argc, char** argv) {
  QApplication application(argc, argv);
  std::vector<std::string> steps(argv + 1, argv + argc);
  if (steps.empty() || steps.size() % 2 != 0) {
    std::cerr << kUsage;
    return 64;
  }
  TestTrayHost host;
  TestNotificationServer notifications;
  if (!host.Start() || !notifications.Start()) {
    std::cerr << "corvalink-traywatch: the tray host's or the notification server's name is taken on this bus\n";
    return 1;
  }
  std::cout << "tray host ready" << std::endl;
  if (!PumpUntil([&] { return !host.items().isEmpty(); }, 120000)) {
    std::cerr << "corvalink-traywatch: no tray item registered\n";
    return 1;
  }
  TrayItem item(host.items().first());
  std::cout << "item: " << host.items().first().toStdString() << std::endl;
  Shown shown;
  AccessibilityBus accessibility;
  bool accessibilityConnected = false;
  for (std::size_t i = 0; i < steps.size(); i += 2) {
    const std::string& step = steps[i];
    const std::string& value = steps[i + 1];
    bool done = true;
    if (step == "--wait-menu") {
      const std::regex pattern(value);
      done = PumpUntil([&] {
        Report(item, notifications, shown);
        return std::regex_match(shown.menu, pattern);
      }, 120000);
    } else if (step == "--wait-icon") {
      done = PumpUntil([&] {
        Report(item, notifications, shown);
        return shown.icon == value;
      }, 120000);
    } else if (step == "--click") {
      std::cout << "click: " << value << std::endl;
      done = item.Click(value);
    } else if (step == "--press") {
      std::cout << "press: " << value << std::endl;
      if (!accessibilityConnected) accessibilityConnected = accessibility.Connect();
      std::optional<AccessibleObject> control;
      done = accessibilityConnected &&
             PumpUntil([&] { return (control = accessibility.Find(value)).has_value(); }, 60000) &&
             accessibility.Press(*control);
    } else if (step == "--file-manager") {
      std::cout << "file manager: " << value << std::endl;
      const auto space = value.find(' ');
      char* socket = cv_fm_socket_path();
      CvFmClient* client = socket ? cv_fm_open(socket, 5000) : nullptr;
      std::free(socket);
      const std::string path = space == std::string::npos ? "" : value.substr(space + 1);
      const char* paths[] = {path.c_str()};
      done = client && !path.empty() && cv_fm_open_window(client, value.substr(0, space).c_str(), paths, 1) == 1;
      if (client) cv_fm_close(client);
    } else if (step == "--run") {
      done = std::system(value.c_str()) == 0;
    } else if (step == "--screenshot") {
      done = SaveScreenshot(value);
      if (done) std::cout << "screenshot: " << value << std::endl;
    } else if (step == "--screenshot-menu") {
      // No panel runs here to open the menu: draw the entries the client
      // publishes, with their titles, states and separators, the way Qt would.
      QMenu menu;
      for (const auto& entry : item.Menu()) {
        if (entry.separator) {
          menu.addSeparator();
        } else {
          menu.addAction(QString::fromStdString(entry.label))->setEnabled(entry.enabled);
        }
      }
      menu.popup(QPoint(0, 0));
      PumpUntil([] { return false; }, 300);
      done = menu.grab().save(QString::fromStdString(value), "PNG");
      menu.close();
      if (done) std::cout << "screenshot: " << value << std::endl;
    } else {
      std::cerr << kUsage;
      return 64;
    }
    if (!done) {
      std::cerr << "corvalink-traywatch: " << step << " " << value << " did not succeed; the menu is " << shown.menu
                << std::endl;
      return 1;
    }
  }
  // The last changes, up to a second, or until the client has left the bus.
  PumpUntil([&] {
    if (!item.Present()) return true;
    Report(item, notifications, shown);
    return false;
  }, 1000);
  return 0;
}
