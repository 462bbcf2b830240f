#pragma once
// MobileClientWS: the calls of the file service (storage login, upload request
// login, system configuration, file calls), one operation per SOAP method on
// CorvalinkMobile.asmx. Synchronous on the calling thread; a new object for each
// use. Only GetHashes, FinishPartialUpload and CancelPartialUpload deal with a
// refused token themselves; the other calls hand the reply to their caller.
//
// Server paths and names are given as plain text: each call escapes them for
// the envelope exactly once, so callers never escape them.

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

class MobileClientWS {
 public:
  // Storage login: the reply's whole text or an "err..." text.
  std::string Login(const std::string& user, const std::string& password, const std::string& storageUrl,
                    const std::string& storageType, const std::string& cvToken);
  // Login of an upload request: the reply bytes.
  std::optional<std::string> LoginEx(const std::string& externalGuid, const std::string& cvToken);
  std::optional<std::string> GetSystemConfig(const std::string& token);
  // The result string of GetFileInfo, or nothing when no reply came.
  std::optional<std::string> GetFileInfo(const std::string& token, const std::string& path);

  // --- Partial upload ---

  // The base64 MD5 of each part the server holds for path at PartSize bytes (0:
  // the configured size). Fetches the storage's token itself, in at most two
  // passes: nothing when no token was accepted or no reply came, an empty list
  // when the path is closed by an IP restriction ("-7").
  std::optional<std::vector<std::string>> GetHashesWithServerPath(const std::string& path,
                                                                  std::int64_t PartSize,
                                                                  const std::string& WithSPSiteName);
  // The same; the token argument is not used, the storage's own is fetched.
  std::optional<std::vector<std::string>> GetHashesWithToken(const std::string& token, const std::string& path,
                                                             std::int64_t PartSize,
                                                             const std::string& WithSPSiteName);
  // The text of PartialHash: the hash of the file, or of its pending parts with
  // WithTempFile. A part size of 0 is the configured one, in kilobytes.
  std::string GetFileHashWithToken(const std::string& token, const std::string& path, std::int64_t PartSize,
                                   bool WithTempFile);
  // Asks the server to put the parts together in the order of WithMD5Array.
  // 0 when it did, -1 otherwise (after at most two passes).
  [[nodiscard]] int FinishPartialUploadWithForSite(const std::string& siteName, const std::string& path,
                                                   std::int64_t PartSize,
                                                   const std::vector<std::string>& WithMD5Array);
  // Drops the server's pending parts of path; the last reply string.
  std::string CancelPartialUploadWithToken(const std::string& token, const std::string& path);
  // The MD5 parameter: one <string> element per hash, in order, each escaped.
  static std::string MD5Fragment(const std::vector<std::string>& hashes);

  // --- Versions ---

  std::string SwitchToVersion(const std::string& token, const std::string& path, const std::string& version);
  // The whole reply, for the reader of version records; nothing without data.
  std::optional<std::string> GetVersions(const std::string& token, const std::string& path);

  // --- Changes of the server's tree: the result string, "" when no reply came ---

  std::string MoveFile(const std::string& token, const std::string& CurrentFileName,
                       const std::string& NewFileName);
  std::string DeleteFile(const std::string& token, const std::string& path);
  std::string CreateFolder(const std::string& token, const std::string& path);
  std::string DeleteFolder(const std::string& token, const std::string& path);
  // DeleteFile run on the request queue while this thread waits: the reply's
  // whole text, or "err" when the request failed or had a bad status.
  std::string DeleteFileAsync(const std::string& token, const std::string& path);

  std::atomic<bool> DeleteFileAsyncInProgress{false};
  std::string deleteFileResultStr() const;

 private:
  // The text of "<method>Result" of a call with these parameters; "" without a reply.
  std::string ResultOf(const std::string& method, const std::vector<std::string>& values,
                       const std::vector<std::string>& keys);

  mutable std::mutex resultLock_;
  std::string DeleteFileResultStr;
};
