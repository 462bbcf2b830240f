#pragma once
// CVStateJournal: the changes to a state file since it was last written whole,
// appended to "<file>.journal" beside it, so that a change costs one short write
// instead of a rewrite of the whole file. Each entry is in the journal file as
// soon as Append returns (a crash of the process keeps it); many entries are
// made durable together by one fdatasync, at most commitDelay after the first of
// them (group commit), together with the folders that files were renamed into.
//
// A journal belongs to one version of its state file (device, inode, size and
// modification time): it is read back only on top of that version, so that a
// crash between writing the file whole and restarting the journal never applies
// an entry twice, and a file replaced by someone else is never changed by
// entries that were meant for another.
//
// Layout: a header (magic, the version) with its CRC-32, then entries, each a
// 32-bit length, the CRC-32 of the payload, and the payload. A torn last entry
// (the process died inside a write) ends the journal.
//
// Any thread; the owner serialises Append and Restart with its own lock.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class CVStateJournal {
 public:
  static constexpr std::chrono::milliseconds kCommitDelay{100};

  // One version of a state file, or its absence.
  struct FileVersion {
    bool exists = false;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modified = 0;  // nanoseconds since 1970
    bool operator==(const FileVersion&) const = default;
    static FileVersion Of(const std::string& path);
  };

  // The payload of one entry: numbers and texts in the order the reader takes them.
  class Entry {
   public:
    Entry& Number(std::int64_t value);
    Entry& Text(std::string_view text);
    // Another entry's payload, behind what this one holds.
    Entry& Append(const Entry& other);
    const std::string& bytes() const { return bytes_; }

   private:
    std::string bytes_;
  };
  // Reads a payload back; a payload too short for what is asked of it is not
  // ok(), and every later read gives 0 or "".
  class Reader {
   public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}
    std::int64_t Number();
    std::string Text();
    bool ok() const { return ok_; }
    bool AtEnd() const { return rest_.empty(); }

   private:
    std::string_view rest_;
    bool ok_ = true;
  };

  explicit CVStateJournal(std::string statePath, std::chrono::milliseconds commitDelay = kCommitDelay);
  // Commits what was appended and ends the committing thread.
  ~CVStateJournal();
  CVStateJournal(const CVStateJournal&) = delete;
  CVStateJournal& operator=(const CVStateJournal&) = delete;

  static std::string PathFor(const std::string& statePath) { return statePath + ".journal"; }

  // The entries that apply on top of version, in order. None when there is no
  // journal, or when it belongs to another version of the file (logged).
  std::vector<std::string> Read(const FileVersion& version);
  // Starts the journal afresh on top of version: what it held is in the state
  // file now. False (logged) when the journal cannot be written; Append then
  // fails until a Restart succeeds.
  bool Restart(const FileVersion& version);
  // Appends one entry. False (logged once) when it could not be written.
  bool Append(const Entry& entry);
  // A folder that a file was renamed into: made durable before the next commit.
  void NoteFolder(const std::string& folder);
  // Makes everything appended so far durable now.
  void Commit();
  // Bytes of entries since the last Restart.
  std::int64_t entryBytes() const;

 private:
  void CommitLoop();
  bool OpenLocked();

  const std::string statePath_;
  const std::string path_;
  const std::chrono::milliseconds commitDelay_;

  mutable std::mutex mutex_;  // everything below
  std::condition_variable wake_;
  int fd_ = -1;
  bool writable_ = false;  // the header on disk is for the present version
  bool failureLogged_ = false;
  std::int64_t entryBytes_ = 0;
  std::uint64_t appended_ = 0;   // entries appended so far
  std::uint64_t committed_ = 0;  // of which durable
  std::set<std::string> folders_;
  bool stopping_ = false;
  std::thread committer_;
  std::mutex commitLock_;  // one commit at a time
};
