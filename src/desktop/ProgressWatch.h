#pragma once
// ProgressWatch: the window side of the progress events. It observes the sync's
// progress notifications on whatever thread posts them, and hands one snapshot of
// the progress record to the main thread. A burst of events (a block of a download
// each) costs one redraw: while one hop is queued, further events add none, and the
// hop reads the record when it runs, so the last event is always drawn.

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

#include "NotificationCenter.h"
#include "SyncListenerAddInfo.h"

class MainLoop;

class ProgressWatch {
 public:
  using Handler = std::function<void(const SyncProgressSnapshot&)>;
  ProgressWatch(MainLoop& loop, Handler onMain);
  ~ProgressWatch();
  ProgressWatch(const ProgressWatch&) = delete;
  ProgressWatch& operator=(const ProgressWatch&) = delete;

  // Draws the record as it is now (a window opened in the middle of a pass).
  void Refresh();

 private:
  struct Shared {
    std::atomic<bool> queued{false};
    std::atomic<bool> alive{true};
    Handler onMain;
  };
  static void Hop(MainLoop& loop, const std::shared_ptr<Shared>& shared);

  MainLoop& loop_;
  std::shared_ptr<Shared> shared_;
  std::vector<NotificationCenter::Token> tokens_;
};
