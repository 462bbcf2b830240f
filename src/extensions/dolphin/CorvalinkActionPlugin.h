#pragma once
// Dolphin's context menu entries of Corvalink Sync: "Share inside", "Share
// outside" and "Versions" on items of a storage, as far as the running client
// opens their windows, and "Send to Corvalink" with one entry per storage on
// items outside the storages. Dolphin makes one per menu on its main thread;
// every question to the client has a short time-out, and a client that is not
// running adds nothing.

#include <KAbstractFileItemActionPlugin>
#include <QVariantList>
#include <string>
#include <vector>

class CorvalinkActionPlugin : public KAbstractFileItemActionPlugin {
  Q_OBJECT

 public:
  CorvalinkActionPlugin(QObject* parent, const QVariantList& args);

  QList<QAction*> actions(const KFileItemListProperties& items, QWidget* parentWidget) override;

 private:
  void OpenWindow(const std::string& command, const std::vector<std::string>& paths) const;
  void SendTo(const std::string& storage, const std::vector<std::string>& paths) const;

  std::string socketPath_;
};
