#include "QtMainLoop.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

QtMainLoop::QtMainLoop(const Clock& clock) : clock_(clock) {}

QtMainLoop::~QtMainLoop() = default;

MainLoop::TimerId QtMainLoop::AddTimer(std::chrono::nanoseconds period, Callback callback, bool fireNow) {
  const int id = nextId_++;
  auto timer = std::make_unique<QTimer>();
  timer->setTimerType(Qt::PreciseTimer);
  const auto scaled = std::chrono::duration_cast<std::chrono::milliseconds>(clock_.Scaled(period));
  timer->setInterval(std::max<std::chrono::milliseconds>(scaled, std::chrono::milliseconds(1)));
  QObject::connect(timer.get(), &QTimer::timeout, &context_, callback);
  timer->start();
  timers_[id] = std::move(timer);
  if (fireNow) {
    // The first tick comes from the loop, as a timer's would, not from inside this call.
    QMetaObject::invokeMethod(&context_, [this, id, callback] {
      if (timers_.count(id)) callback();
    }, Qt::QueuedConnection);
  }
  return id;
}

void QtMainLoop::CancelTimer(TimerId id) {
  auto it = timers_.find(id);
  if (it == timers_.end()) return;
  it->second->stop();
  // A timer may be cancelled from its own callback: delete it after the callback.
  it->second.release()->deleteLater();
  timers_.erase(it);
}

MainLoop::WatchId QtMainLoop::AddReadWatch(int fd, Callback callback) {
  const int id = nextId_++;
  auto notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
  QObject::connect(notifier.get(), &QSocketNotifier::activated, &context_, [callback] { callback(); });
  watches_[id] = std::move(notifier);
  return id;
}

void QtMainLoop::RemoveReadWatch(WatchId id) {
  auto it = watches_.find(id);
  if (it == watches_.end()) return;
  it->second->setEnabled(false);
  it->second.release()->deleteLater();
  watches_.erase(it);
}

void QtMainLoop::Post(Callback callback) {
  QMetaObject::invokeMethod(&context_, std::move(callback), Qt::QueuedConnection);
}

bool QtMainLoop::IsMainThread() const { return QThread::currentThread() == context_.thread(); }

int QtMainLoop::Run() {
  // A loop of its own, so that a second Run (after Quit, to drain the work in
  // flight) behaves as the first one did.
  QEventLoop loop;
  running_ = &loop;
  const int code = loop.exec();
  running_ = nullptr;
  return code;
}

void QtMainLoop::Quit(int code) {
  exitCode_ = code;
  quitRequested_ = true;
  // Several requests end one run; a Quit before Run ends the run that follows.
  Post([this] {
    if (running_ && quitRequested_.exchange(false)) running_->exit(exitCode_);
  });
}
