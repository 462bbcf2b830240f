#pragma once
// InotifyEventStream: the FileEventStream of Linux, over one inotify instance with
// a watch on every folder of the watched trees. It reads on the main loop and
// delivers one batch per read; a rename is paired only by its inotify cookie, and
// a first half whose second half has not come yet is held for a short time (a
// main loop timer) before it goes out alone. A folder that appears gets its watch
// and a scan, reported as created items, of what was written into it before the
// watch existed. Symbolic links below the given folders are never followed.
//
// Any thread may call Start, Stop and IsRunning; every callback runs on the main
// loop's thread. Stop from another thread waits for a callback in flight.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "FileEventStream.h"
#include "MainLoop.h"

class InotifyEventStream : public FileEventStream {
 public:
  using LogCallback = std::function<void(const std::string& line)>;

  InotifyEventStream(MainLoop& loop, BatchCallback onBatch, TroubleCallback onTrouble,
                     LogCallback log,
                     std::chrono::milliseconds renameHold = std::chrono::milliseconds(250));
  ~InotifyEventStream() override;
  InotifyEventStream(const InotifyEventStream&) = delete;
  InotifyEventStream& operator=(const InotifyEventStream&) = delete;

  // A stream that runs already is stopped first and started anew on the new list.
  bool Start(const std::vector<std::string>& folders) override;
  void Stop() override;
  bool IsRunning() const override;

  // One record of a read of the inotify descriptor.
  struct Record {
    int wd = -1;
    std::uint32_t mask = 0;
    std::uint32_t cookie = 0;
    std::string name;  // "" for an event of the watched folder itself
  };
  // The records of one read, in order. A record cut off at the end of the read,
  // or whose name is no file name ("/" in it, "." or ".."), is dropped: no path
  // is ever made of it.
  static std::vector<Record> Decode(const char* data, std::size_t size);

 private:
  struct Watch {
    std::string path;
    bool root = false;
  };
  // The first half of a rename, waiting for the second half with its cookie.
  struct HeldHalf {
    std::string path;
    bool isDir = false;
    int ticks = 0;  // hold timer ticks seen
  };
  // What a callback checks before it touches the stream: the stream may have been
  // stopped (or destroyed) after the loop took the callback.
  struct Life {
    std::recursive_mutex mutex;
    bool running = false;
    std::uint64_t generation = 0;
  };

  // Runs body under the lock, and only while the run that made it still goes on.
  std::function<void()> Guarded(std::function<void()> body);
  void StopLocked();
  void OnReadable();
  void OnHoldTick();
  void Translate(const char* data, std::size_t size, std::vector<FileEvent>& batch,
                 bool& overflow);
  void HandleNamed(std::uint32_t mask, std::uint32_t cookie, const std::string& path,
                   std::vector<FileEvent>& batch);
  // Watches top and every folder below it. With found, each item below top is
  // also reported as created (a folder that appeared with content in it).
  bool WatchTree(const std::string& top, bool root, std::vector<FileEvent>* found);
  int AddWatch(const std::string& folder, bool root);
  void RenameWatches(const std::string& from, const std::string& to);
  void ForgetWatches(const std::string& top);
  void EmitLoneHalf(const HeldHalf& half, std::vector<FileEvent>& batch);
  void UpdateHoldTimer();
  void Emit(std::vector<FileEvent>& batch, std::string path, std::uint32_t flags);
  void EmitPair(std::vector<FileEvent>& batch, std::string from, std::string to, bool isDir);
  // Hands the batch and the troubles gathered meanwhile to the receiver; false
  // when a callback stopped the stream.
  bool Deliver(std::vector<FileEvent> batch, bool overflow);
  void Log(const std::string& line) const;

  MainLoop& loop_;
  BatchCallback onBatch_;
  TroubleCallback onTrouble_;
  LogCallback log_;
  std::chrono::milliseconds renameHold_;

  std::shared_ptr<Life> life_ = std::make_shared<Life>();
  int fd_ = -1;
  MainLoop::WatchId readWatch_ = 0;
  MainLoop::TimerId holdTimer_ = 0;
  bool holdTimerRunning_ = false;
  std::unordered_map<int, Watch> watches_;
  std::map<std::uint32_t, HeldHalf> held_;  // by cookie
  std::uint64_t nextId_ = 1;
  bool watchLimitHit_ = false;       // reported once per Start
  bool watchLimitToReport_ = false;  // hit, not told yet
  std::string watchLimitDetail_;
  std::unique_ptr<char[]> buffer_;
};
