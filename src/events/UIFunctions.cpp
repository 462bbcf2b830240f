#include "UIFunctions.h"

#include <iostream>

#include "CVConfiguration.h"
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
