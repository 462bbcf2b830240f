#pragma once
// Dolphin's badges of Corvalink Sync: the emblem of each file of a storage by
// the state the running client holds for it. Dolphin asks on its main thread
// and must never wait, so an unknown path is answered with no badge at once and
// asked of the client on a thread of this plug-in; the answer comes back as
// overlaysChanged. The client's pushed changes have the paths asked again; when
// it stops, the badges go, and they come back when it runs again.

#include <KOverlayIconPlugin>
#include <QHash>
#include <QSet>
#include <QTimer>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

class QSocketNotifier;
struct CvFmClient;

class CorvalinkOverlayPlugin : public KOverlayIconPlugin {
  Q_OBJECT
  Q_PLUGIN_METADATA(IID "io.corvalink.Sync.KOverlayIconPlugin" FILE "corvalink-overlay.json")

 public:
  explicit CorvalinkOverlayPlugin(QObject* parent = nullptr);
  ~CorvalinkOverlayPlugin() override;

  QStringList getOverlays(const QUrl& item) override;

 private:
  void Ask(const QString& path);
  void Answered(const QString& path, int state);
  void Subscribe();
  void OnChangedInput();
  void EndSubscription();
  void AskLoop();

  std::string socketPath_;
  // Main thread: the states known, the paths asked and not answered yet.
  QHash<QString, int> states_;
  QSet<QString> pending_;
  CvFmClient* subscription_ = nullptr;
  QSocketNotifier* changedInput_ = nullptr;
  QTimer subscribeRetry_;

  // Shared with the asking thread.
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::string> asked_;
  bool stopping_ = false;
  bool reconnect_ = false;  // a new subscription: open a new session too
  std::thread asker_;
};
