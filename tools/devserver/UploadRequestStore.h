#pragma once
// UploadRequestStore: the upload requests the server keeps, in memory for its
// run: one record per recipient of a CreateUploadRequest call, all of one call
// in one session. What an outside person sends lands in the request's folder,
// UploadRequest/<session>/<recipient's address> in the owner's first storage.
// Thread-safe.

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace devserver {

struct UploadRequestRecord {
  int id = 0;
  std::string guid, owner, session, sessionId;
  std::string recipientName, recipientEmail, recipientMobile;
  std::string extensions;  // "," separated
  long numberOfUpload = -1;
  std::string fileSize;  // bytes, "-1": no limit
  std::string createdAt, expireAt;  // "yyyy-MM-ddTHH:mm:ss", UTC
  std::string notification;
  std::string storage;  // the storage's name
  std::string folder;   // relative to the storage's folder, "/" separated
  int emailsSent = 1;
};

class UploadRequestStore {
 public:
  // Gives each record the next id; returns them as kept.
  std::vector<UploadRequestRecord> Add(std::vector<UploadRequestRecord> records);
  std::vector<UploadRequestRecord> OwnedBy(const std::string& owner) const;
  std::optional<UploadRequestRecord> FindGuid(const std::string& guid) const;
  std::optional<UploadRequestRecord> FindId(int id) const;
  // Each counts the owner's requests among ids that it changed.
  int Remove(const std::string& owner, const std::vector<int>& ids);
  int Resend(const std::string& owner, const std::vector<int>& ids);

 private:
  mutable std::mutex mutex_;
  std::vector<UploadRequestRecord> records_;
  int nextId_ = 1;
};

}  // namespace devserver
