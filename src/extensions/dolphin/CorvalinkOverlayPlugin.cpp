#include "CorvalinkOverlayPlugin.h"

#include <QLoggingCategory>
#include <QSocketNotifier>
#include <QUrl>
#include <chrono>
#include <cstdlib>
#include <utility>

#include "corvalink_fm_client.h"
#include "corvalink_fm_menu.h"

Q_LOGGING_CATEGORY(cvOverlay, "corvalink.dolphin.overlay", QtWarningMsg)

namespace {

constexpr int kAnswerTimeoutMs = 200;
constexpr auto kRetry = std::chrono::seconds(5);
// Dolphin asks only for what it shows: a cache this large has outlived its views.
constexpr int kMaxKnown = 50000;

QStringList Overlays(int state) {
  const char* emblem = cv_fm_emblem(state);
  return emblem ? QStringList{QString::fromUtf8(emblem)} : QStringList{};
}

}  // namespace

CorvalinkOverlayPlugin::CorvalinkOverlayPlugin(QObject* parent) : KOverlayIconPlugin(parent) {
  char* path = cv_fm_socket_path();
  socketPath_ = path ? path : "";
  free(path);
  subscribeRetry_.setSingleShot(true);
  subscribeRetry_.setInterval(kRetry);
  connect(&subscribeRetry_, &QTimer::timeout, this, &CorvalinkOverlayPlugin::Subscribe);
  asker_ = std::thread([this] { AskLoop(); });
  Subscribe();
}

CorvalinkOverlayPlugin::~CorvalinkOverlayPlugin() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_one();
  asker_.join();
  EndSubscription();
}

QStringList CorvalinkOverlayPlugin::getOverlays(const QUrl& item) {
  if (!item.isLocalFile()) return {};
  const QString path = item.toLocalFile();
  if (auto known = states_.constFind(path); known != states_.constEnd()) return Overlays(*known);
  Ask(path);
  return {};
}

void CorvalinkOverlayPlugin::Ask(const QString& path) {
  if (pending_.contains(path)) return;
  pending_.insert(path);
  {
    std::lock_guard lock(mutex_);
    asked_.push_back(path.toStdString());
  }
  wake_.notify_one();
}

void CorvalinkOverlayPlugin::Answered(const QString& path, int state) {
  pending_.remove(path);
  if (states_.size() >= kMaxKnown) states_.clear();
  const int before = states_.value(path, CV_FM_STATE_NONE);
  states_.insert(path, state);
  if (Overlays(before) != Overlays(state)) {
    qCDebug(cvOverlay) << "overlay" << Overlays(state) << "on" << path;
    emit overlaysChanged(QUrl::fromLocalFile(path), Overlays(state));
  }
}

// The paths' states, one session at a time; while the client is away every
// answer is "no badge" and the session is tried again only after a while.
void CorvalinkOverlayPlugin::AskLoop() {
  CvFmClient* session = nullptr;
  std::string root;  // the storages root, as the last session told it
  auto retryAt = std::chrono::steady_clock::now();
  std::unique_lock lock(mutex_);
  while (true) {
    wake_.wait(lock, [this] { return stopping_ || !asked_.empty(); });
    if (stopping_) break;
    const std::string path = std::move(asked_.front());
    asked_.pop_front();
    const bool reconnect = std::exchange(reconnect_, false);
    lock.unlock();
    if (reconnect) {
      // The session of a client that has since restarted would fail the next question.
      cv_fm_close(session);
      session = nullptr;
      retryAt = std::chrono::steady_clock::now();
    }
    if (!session && std::chrono::steady_clock::now() >= retryAt) {
      session = cv_fm_open(socketPath_.c_str(), kAnswerTimeoutMs);
      const char* told = nullptr;
      if (session && cv_fm_storages(session, &told, nullptr) >= 0) {
        root = told;
      } else {
        cv_fm_close(session);
        session = nullptr;
        retryAt = std::chrono::steady_clock::now() + kRetry;
      }
    }
    int state = CV_FM_STATE_NONE;
    if (session && cv_fm_in_storages(root.c_str(), path.c_str())) {
      state = cv_fm_state(session, path.c_str());
      if (state < 0) {
        cv_fm_close(session);
        session = nullptr;
        retryAt = std::chrono::steady_clock::now() + kRetry;
        state = CV_FM_STATE_NONE;
      }
    }
    QMetaObject::invokeMethod(this, [this, answered = QString::fromStdString(path), state] { Answered(answered, state); },
                              Qt::QueuedConnection);
    lock.lock();
  }
  cv_fm_close(session);
}

void CorvalinkOverlayPlugin::Subscribe() {
  subscription_ = cv_fm_subscribe(socketPath_.c_str(), kAnswerTimeoutMs);
  if (!subscription_) {
    subscribeRetry_.start();
    return;
  }
  changedInput_ = new QSocketNotifier(cv_fm_fd(subscription_), QSocketNotifier::Read, this);
  connect(changedInput_, &QSocketNotifier::activated, this, &CorvalinkOverlayPlugin::OnChangedInput);
  // Whatever was asked while the client was away is asked again, of the client
  // that answers now.
  {
    std::lock_guard lock(mutex_);
    reconnect_ = true;
  }
  for (auto known = states_.constBegin(); known != states_.constEnd(); ++known) Ask(known.key());
}

void CorvalinkOverlayPlugin::OnChangedInput() {
  auto changed = [](const char* path, void* data) {
    auto* self = static_cast<CorvalinkOverlayPlugin*>(data);
    const QString changedPath = QString::fromUtf8(path);
    // A path Dolphin never asked for is asked when it is.
    if (self->states_.contains(changedPath)) self->Ask(changedPath);
  };
  if (cv_fm_read_changed(subscription_, changed, this) == 0) return;
  // The client stopped: no badge stays, and it is looked for again.
  qCDebug(cvOverlay) << "client gone: badges taken off";
  EndSubscription();
  for (auto known = states_.begin(); known != states_.end(); ++known) {
    if (!Overlays(*known).isEmpty()) emit overlaysChanged(QUrl::fromLocalFile(known.key()), {});
    *known = CV_FM_STATE_NONE;
  }
  subscribeRetry_.start();
}

void CorvalinkOverlayPlugin::EndSubscription() {
  delete changedInput_;
  changedInput_ = nullptr;
  cv_fm_close(subscription_);
  subscription_ = nullptr;
}
