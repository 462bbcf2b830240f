#include "MassDeletionGuard.h"

#include <algorithm>
#include <utility>

bool MassDeletionGuard::NeedsConfirmation(std::size_t deletions, std::size_t files) {
  if (deletions == 0) return false;
  return deletions >= files || (deletions * 2 > files && deletions > 100);
}

MassDeletionGuard::Review MassDeletionGuard::Decide(const std::string& storage,
                                                    const std::vector<CVFileForCompare>& vanished,
                                                    std::size_t storageFiles) {
  std::lock_guard<std::mutex> lock(lock_);
  Storage& entry = storages_[storage];
  Review review;
  review.verdicts.assign(vanished.size(), Verdict::Delete);
  std::set<std::string> gone;
  std::size_t undecidedFiles = 0;
  for (std::size_t i = 0; i < vanished.size(); ++i) {
    const std::string& path = vanished[i].localPath;
    gone.insert(path);
    if (entry.declined.count(path)) {
      review.verdicts[i] = Verdict::Restore;
    } else if (!entry.confirmed.count(path) && !vanished[i].isFolder) {
      ++undecidedFiles;
    }
  }
  // An answer stands for the paths still gone; the others were dealt with.
  auto settled = [&gone](const std::string& path) { return !gone.count(path); };
  std::erase_if(entry.confirmed, settled);
  std::erase_if(entry.declined, settled);

  // Once asked, the question stands until answered: files that come meanwhile
  // (new ones uploaded) must not bring the share below the threshold.
  const bool asked = std::any_of(entry.heldPaths.begin(), entry.heldPaths.end(),
                                 [&gone](const std::string& path) { return gone.count(path) > 0; });
  std::set<std::string> held;
  if (asked || NeedsConfirmation(undecidedFiles, storageFiles)) {
    for (std::size_t i = 0; i < vanished.size(); ++i) {
      const std::string& path = vanished[i].localPath;
      if (entry.declined.count(path) || entry.confirmed.count(path)) continue;
      review.verdicts[i] = Verdict::Hold;
      held.insert(path);
    }
  }
  const bool news = !std::includes(entry.heldPaths.begin(), entry.heldPaths.end(), held.begin(), held.end());
  entry.held = held.empty() ? Held{} : Held{storage, undecidedFiles, storageFiles};
  entry.heldPaths = std::move(held);
  if (news) review.tell = Describe(entry.held);
  return review;
}

std::size_t MassDeletionGuard::Confirm(const std::string& storage) { return Answer(storage, true); }

std::size_t MassDeletionGuard::Decline(const std::string& storage) { return Answer(storage, false); }

std::size_t MassDeletionGuard::Answer(const std::string& storage, bool confirm) {
  std::lock_guard<std::mutex> lock(lock_);
  auto found = storages_.find(storage);
  if (found == storages_.end() || found->second.heldPaths.empty()) return 0;
  Storage& entry = found->second;
  std::set<std::string>& answered = confirm ? entry.confirmed : entry.declined;
  answered.merge(entry.heldPaths);
  entry.heldPaths.clear();
  return std::exchange(entry.held, Held{}).files;
}

std::vector<MassDeletionGuard::Held> MassDeletionGuard::AllHeld() {
  std::lock_guard<std::mutex> lock(lock_);
  std::vector<Held> all;
  for (const auto& [name, entry] : storages_) {
    if (!entry.heldPaths.empty()) all.push_back(entry.held);
  }
  return all;
}

std::string MassDeletionGuard::Describe(const Held& held) {
  return "Storage \"" + held.storage + "\": the server no longer lists " + std::to_string(held.files) + " of its " +
         std::to_string(held.storageFiles) +
         " files. They are kept here until you decide: \"corvalink-sync confirm-deletes " + held.storage +
         "\" moves them to the Trash, \"corvalink-sync decline-deletes " + held.storage +
         "\" puts them back on the server.";
}
