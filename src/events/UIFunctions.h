#pragma once
// UIFunctions: the fixed desktop notifications. Each goes to the status sink only
// while the account's NotificationTray is on.

#include <string>

class StatusSink;

class UIFunctions {
 public:
  static void ShowNotificationInTrayWithTitle(StatusSink& sink, const std::string& title,
                                              const std::string& text);
  static void NotificationNoConnectToServer(StatusSink& sink);
  static void NotificationSyncPaused(StatusSink& sink);
  static void NotificationOffline(StatusSink& sink);
  static void NotificationSyncError(StatusSink& sink);

  // Text escaping for URLs and XML; the state layer holds the one implementation.
  static std::string URLEncodedString(const std::string& text);
  static std::string URLDecodedString(const std::string& text);
  static std::string AddSpecialSymbols(const std::string& text);
  static std::string ReplaceSpecialSymbols(const std::string& text);
};
