#pragma once
// LiveSlots: the records of a journaled state file in file order, each found by
// its path at once. A record that goes leaves a dead slot behind until the next
// Compact, so that the indexes of the others hold while journal entries apply.
// The slots sit in a deque: the index's keys are views of the slots' own paths
// and stay put as slots are added.
//
// Paths are mostly unique; when some path is held by more than one record, the
// index keeps the first, and Next walks the others.
//
// With an OtherKey (a function object from a path to another form of it),
// records whose other form differs from their path are indexed by that form too
// (FirstOther).
//
// Not thread-safe: the store that holds it locks.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <unordered_map>
#include <utility>

struct NoOtherKey {
  std::string operator()(const std::string& path) const { return path; }
};

template <typename Record, std::string Record::*kPath, typename OtherKey = NoOtherKey>
class LiveSlots {
 public:
  using Index = std::uint32_t;

  void Clear() {
    slots_.clear();
    first_.clear();
    firstOther_.clear();
    live_ = 0;
    sharedKeys_ = false;
  }

  // Appended, live.
  Index Add(Record record) {
    slots_.push_back(Slot{std::move(record), true});
    ++live_;
    const auto at = static_cast<Index>(slots_.size() - 1);
    IndexSlot(at);
    return at;
  }

  // Gone: out of the indexes, its memory released; the slot stays until Compact.
  void Kill(Index at) {
    Slot& slot = slots_[at];
    if (!slot.live) return;
    UnindexSlot(at);
    slot.live = false;
    --live_;
    slot.record = Record{};
  }

  void SetPath(Index at, std::string path) {
    UnindexSlot(at);
    slots_[at].record.*kPath = std::move(path);
    IndexSlot(at);
  }

  std::optional<Index> First(std::string_view path) const {
    auto found = first_.find(path);
    if (found == first_.end()) return std::nullopt;
    return found->second;
  }
  // The first live record whose other form of its path is key, and differs from its path.
  std::optional<Index> FirstOther(const std::string& key) const {
    auto found = firstOther_.find(key);
    if (found == firstOther_.end()) return std::nullopt;
    return found->second;
  }
  // The next live record after at with the same path.
  std::optional<Index> Next(Index at) const {
    if (!sharedKeys_) return std::nullopt;
    return NextWith(PathOf(at), false, at + 1);
  }

  bool IsLive(Index at) const { return slots_[at].live; }
  Record& operator[](Index at) { return slots_[at].record; }
  const Record& operator[](Index at) const { return slots_[at].record; }
  Index size() const { return static_cast<Index>(slots_.size()); }
  std::size_t live() const { return live_; }

  // Drops the dead slots; the indexes of the others change.
  void Compact() {
    if (live_ == slots_.size()) return;
    std::deque<Slot> kept;
    for (auto& slot : slots_) {
      if (slot.live) kept.push_back(std::move(slot));
    }
    Clear();
    for (auto& slot : kept) Add(std::move(slot.record));
  }

  template <typename Visit>
  void ForEachLive(Visit&& visit) const {
    for (const auto& slot : slots_) {
      if (slot.live) visit(slot.record);
    }
  }

 private:
  static constexpr bool kHasOther = !std::is_same_v<OtherKey, NoOtherKey>;

  struct Slot {
    Record record;
    bool live = true;
  };

  const std::string& PathOf(Index at) const { return slots_[at].record.*kPath; }

  void IndexSlot(Index at) {
    const std::string& path = PathOf(at);
    auto [exact, added] = first_.try_emplace(std::string_view(path), at);
    if (!added) {
      sharedKeys_ = true;
      if (exact->second > at) {
        // The key must view the first slot's own path.
        first_.erase(exact);
        first_.emplace(std::string_view(path), at);
      }
    }
    if constexpr (kHasOther) {
      std::string other = OtherKey{}(path);
      if (other == path) return;
      auto [found, inserted] = firstOther_.try_emplace(std::move(other), at);
      if (!inserted) {
        sharedKeys_ = true;
        if (found->second > at) found->second = at;
      }
    }
  }

  void UnindexSlot(Index at) {
    const std::string path = PathOf(at);
    if (auto exact = first_.find(path); exact != first_.end() && exact->second == at) {
      first_.erase(exact);
      if (sharedKeys_) {
        if (auto next = NextWith(path, false, at + 1)) first_.emplace(std::string_view(PathOf(*next)), *next);
      }
    }
    if constexpr (kHasOther) {
      std::string other = OtherKey{}(path);
      if (other == path) return;
      if (auto found = firstOther_.find(other); found != firstOther_.end() && found->second == at) {
        firstOther_.erase(found);
        if (sharedKeys_) {
          if (auto next = NextWith(other, true, at + 1)) firstOther_.emplace(std::move(other), *next);
        }
      }
    }
  }

  // The first live slot at or after from whose path (or other form of it) is key.
  std::optional<Index> NextWith(std::string_view key, bool other, Index from) const {
    for (Index at = from; at < slots_.size(); ++at) {
      if (!slots_[at].live) continue;
      const std::string& path = PathOf(at);
      if (!other ? path == key : (path != key && OtherOf(path) == key)) return at;
    }
    return std::nullopt;
  }

  static std::string OtherOf(const std::string& path) { return OtherKey{}(path); }

  std::deque<Slot> slots_;
  std::size_t live_ = 0;
  std::unordered_map<std::string_view, Index> first_;
  std::unordered_map<std::string, Index> firstOther_;
  bool sharedKeys_ = false;
};
