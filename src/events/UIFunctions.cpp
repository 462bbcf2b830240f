#include "UIFunctions.h"

#include <iostream>

#include "CVConfiguration.h"
#include "CVTextEscaping.h"
#include "StatusSink.h"

void UIFunctions::ShowNotificationInTrayWithTitle(StatusSink& sink, const std::string& title,
                                                  const std::string& text) {
  if (CVConfiguration::Instance().Corvalink.NotificationTray) {
    sink.ShowNotification(title, text);
  } else {
    std::cerr << "Notification checkbox state off, but call: " << title << ", " << text << '\n';
  }
}

void UIFunctions::NotificationNoConnectToServer(StatusSink& sink) {
  ShowNotificationInTrayWithTitle(sink, "Server is unavailable", "No connection to the server");
}

void UIFunctions::NotificationSyncPaused(StatusSink& sink) {
  ShowNotificationInTrayWithTitle(sink, "Corvalink Sync", "Synchronization paused");
}

void UIFunctions::NotificationOffline(StatusSink& sink) {
  ShowNotificationInTrayWithTitle(sink, "Synchronization error",
                                  "Please check network connection or Corvalink credentials");
}

void UIFunctions::NotificationSyncError(StatusSink& sink) {
  ShowNotificationInTrayWithTitle(sink, "Corvalink Sync", "Synced with errors");
}

std::string UIFunctions::URLEncodedString(const std::string& text) {
  return CVTextEscaping::URLEncodedString(text);
}
std::string UIFunctions::URLDecodedString(const std::string& text) {
  return CVTextEscaping::URLDecodedString(text);
}
std::string UIFunctions::AddSpecialSymbols(const std::string& text) {
  return CVTextEscaping::AddSpecialSymbols(text);
}
std::string UIFunctions::ReplaceSpecialSymbols(const std::string& text) {
  return CVTextEscaping::ReplaceSpecialSymbols(text);
}
