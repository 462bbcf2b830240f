#pragma once
// FileEventStream: one stream of per-file events for a list of folders, delivered
// on the main loop in batches. Each event has the path, the flags below and a
// rising id. The two halves of a rename come as neighbours in one batch with ids
// exactly one apart; no other two events ever get neighbouring ids, so the
// receiver pairs a rename by its ids alone. There is no history: events start when
// the stream starts.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace fileevents {
inline constexpr std::uint32_t kCreated = 0x100;
inline constexpr std::uint32_t kRemoved = 0x200;
inline constexpr std::uint32_t kRenamed = 0x800;
inline constexpr std::uint32_t kModified = 0x1000;
inline constexpr std::uint32_t kIsDir = 0x20000;
}  // namespace fileevents

struct FileEvent {
  std::string path;
  std::uint32_t flags = 0;
  std::uint64_t id = 0;
};

// What went wrong with the stream itself, as opposed to one event.
enum class FileEventTrouble {
  // The kernel dropped events: what changed meanwhile is unknown.
  Overflow,
  // No more folders can be watched (the per-user limit of the kernel is reached).
  WatchLimit,
};

class FileEventStream {
 public:
  using BatchCallback = std::function<void(const std::vector<FileEvent>& batch)>;
  using TroubleCallback = std::function<void(FileEventTrouble trouble, const std::string& detail)>;

  virtual ~FileEventStream() = default;

  // Starts watching the folders and everything below them. False when nothing
  // could be watched; the reason is logged.
  virtual bool Start(const std::vector<std::string>& folders) = 0;
  // Stops and forgets every watch; no callback comes after it returns.
  virtual void Stop() = 0;
  virtual bool IsRunning() const = 0;
};
