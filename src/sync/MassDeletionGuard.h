#pragma once
// MassDeletionGuard: holds back the local deletions of a pass that would remove
// all of a storage's files, or more than half of them and more than 100. A
// listing that drops most of a storage is more often a fault on the server's
// side than what its users did; a wrong guess there would trash everything.
//
// Held records stay as they are, so the files stay on disk and in the record,
// and everything else of the storage goes on. The user decides per storage:
// confirming lets the next comparison delete what was held (to the Trash);
// declining puts the local copies back on the server, so that both sides hold
// them again and nothing is lost either way. Kept in memory: after a restart
// the first pass holds the same deletions again. Owned by SERVER_Queues; any thread.

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "SyncRecords.h"

class MassDeletionGuard {
 public:
  enum class Verdict { Delete, Hold, Restore };

  // What waits for the user in one storage.
  struct Held {
    std::string storage;
    std::size_t files = 0;         // files the server stopped listing
    std::size_t storageFiles = 0;  // files of the storage at the last sync
  };

  struct Review {
    std::vector<Verdict> verdicts;  // one per record given, in its order
    std::optional<std::string> tell;  // for the user, when something is newly held
  };

  // Whether deleting `deletions` of a storage's `files` files in one pass
  // needs the user's word.
  static bool NeedsConfirmation(std::size_t deletions, std::size_t files);

  // The fate of the records of a storage that the server no longer lists, given
  // the storage's count of file records. Under the comparison's lock.
  Review Decide(const std::string& storage, const std::vector<CVFileForCompare>& vanished, std::size_t storageFiles);

  // The user's answers: how many files they cover; 0 when nothing of the
  // storage was held.
  std::size_t Confirm(const std::string& storage);
  std::size_t Decline(const std::string& storage);

  std::vector<Held> AllHeld();
  // One line for the user: what is held and the two commands that decide.
  static std::string Describe(const Held& held);

 private:
  struct Storage {
    Held held;
    std::set<std::string> heldPaths;
    std::set<std::string> confirmed;
    std::set<std::string> declined;
  };
  std::size_t Answer(const std::string& storage, bool confirm);

  std::mutex lock_;
  std::map<std::string, Storage> storages_;
};
