#pragma once
// Small pieces the windows share: how a control is named for tests and for
// assistive technologies, and the dot that shows how much of a storage is synced.

#include <QIcon>
#include <QString>
#include <QWidget>
#include <chrono>
#include <functional>
#include <optional>
#include <string>

namespace widgets {
// objectName for the tests, accessible name for AT-SPI.
void Name(QWidget& widget, const char* objectName, const QString& accessible);
// A message box that nothing waits for: window-modal over parent, or standing
// on its own without one; it deletes itself when closed.
void ShowMessage(QWidget* parent, const std::string& text, const char* objectName);
// A controller's action whose question must not wait on the main thread: action
// runs at once with every question answered "No"; when it asked one, the
// question shows (window-modal, "Yes" and "No", named objectName), and "Yes"
// runs action again with the answer "Yes".
using Ask = std::function<bool(const std::string& title, const std::string& question)>;
void AskFirst(QWidget& parent, const char* objectName, const std::function<void(const Ask&)>& action);
// Shown, raised over the other windows and given the keyboard.
void ShowInFront(QWidget& window);
// "storage_sync_green" (all), "storage_sync_yellow" (some), else grey (nothing).
QIcon StorageStateIcon(const std::string& iconStorage);
// A date of the share lists, to the minute in local time; "" for none.
QString DateText(const std::optional<std::chrono::sys_time<std::chrono::milliseconds>>& date);
}  // namespace widgets
