#include "ProgressWatch.h"

#include "MainLoop.h"
#include "SyncListener.h"

ProgressWatch::ProgressWatch(MainLoop& loop, Handler onMain) : loop_(loop), shared_(std::make_shared<Shared>()) {
  shared_->onMain = std::move(onMain);
  for (const char* name : {SyncListener::kSyncStateChanged, SyncListener::kStorageNumberChanged,
                           SyncListener::kOneMoreFileSynced, SyncListener::kOverallFilesNumberChanged,
                           SyncListener::kFileNameChanged, SyncListener::kFileAmountChanged,
                           SyncListener::kFilePercentsChanged}) {
    tokens_.push_back(NotificationCenter::Default().AddObserver(
        name, [&loop, shared = shared_](const std::string&, const NotificationInfo&) { Hop(loop, shared); }));
  }
}

ProgressWatch::~ProgressWatch() {
  for (auto token : tokens_) NotificationCenter::Default().RemoveObserver(token);
  shared_->alive = false;
}

void ProgressWatch::Refresh() { Hop(loop_, shared_); }

// Observers may run on another thread while the watch is destroyed: they hold the
// shared part, never the watch.
void ProgressWatch::Hop(MainLoop& loop, const std::shared_ptr<Shared>& shared) {
  if (shared->queued.exchange(true)) return;
  // The hop never waits: a transfer's callback thread is not paced by the window.
  loop.Post([shared] {
    shared->queued = false;
    if (shared->alive) shared->onMain(SyncListenerAddInfo::Instance().Snapshot());
  });
}
