#include "AsyncFileMethods.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <exception>
#include <set>
#include <thread>

#include "ASIHTTPRequest.h"
#include "AsyncFileCommonPart.h"
#include "AsyncFileUploader.h"
#include "CVConfiguration.h"
#include "CrashPoint.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "Clock.h"
#include "MobileClientWS.h"
#include "ServerNameRules.h"
#include "SyncCodes.h"
#include "SyncListener.h"

namespace {

constexpr const char* kClass = "AsyncFileMethods";

void Log(const char* method, const std::string& text) {
  CVEventLogger::WriteMainLogMessage(std::string(kClass) + " - " + method + " -> " + text);
}

bool IsSuccess(int status) { return status >= 200 && status <= 299; }

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string LocalRootOf(const CVSharepoint& site) {
  return CVStaticHelpers::GenerateRootPathForStorages() + "/" + site.Name + "/";
}

std::optional<std::int64_t> Number(const std::string& text) {
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

// Size and modification time (ns) of a regular file, without following a link.
std::optional<std::pair<std::int64_t, std::int64_t>> FileStamp(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return std::make_pair(static_cast<std::int64_t>(info.st_size),
                        static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec);
}

}  // namespace

struct AsyncFileMethods::Target {
  CVSharepoint site;  // a copy, made under the storages' lock
  std::string siteName;
  std::string servPath;  // of nFilePath
};

AsyncFileMethods::AsyncFileMethods(std::shared_ptr<const Clock> clock) : clock_(std::move(clock)) {}

AsyncFileMethods::~AsyncFileMethods() {
  std::vector<std::shared_ptr<AsyncFileUploader>> uploaders;
  {
    std::lock_guard<std::mutex> lock(cvWSLock_);
    uploaders = cvWS;
  }
  for (const auto& uploader : uploaders) uploader->StopFileUploading();
}

void AsyncFileMethods::SetFirstTimeSyncPerformedHandler(std::function<void(bool)> handler) {
  std::lock_guard<std::mutex> lock(hooksLock_);
  firstTimeSyncPerformed_ = std::move(handler);
}

void AsyncFileMethods::SetSyncMainThreadShouldRun(std::function<bool()> shouldRun) {
  std::lock_guard<std::mutex> lock(hooksLock_);
  syncMainThreadShouldRun_ = std::move(shouldRun);
}

void AsyncFileMethods::SetPartSizeSource(std::function<std::int64_t()> kilobytes) {
  std::lock_guard<std::mutex> lock(hooksLock_);
  partSizeSource_ = std::move(kilobytes);
}

// --- Rules ---

std::string AsyncFileMethods::generateServerPath(const std::string& localPath, const CVSharepoint& forSite) {
  std::string base = CVTextEscaping::URLDecodedString(forSite.Url);
  char separator = '/';
  if (forSite.StorageType == "CIFS" || forSite.Url.find('\\') != std::string::npos) separator = '\\';
  if (base.empty() || base.back() != separator) base += separator;

  const std::string localRoot = LocalRootOf(forSite);
  std::string rest = localPath;
  if (std::size_t at = rest.find(localRoot); at != std::string::npos) {
    rest.erase(at, localRoot.size());
  } else if (localPath + "/" == localRoot) {
    rest.clear();  // the storage's own folder is its location
  }
  const char other = separator == '\\' ? '/' : '\\';
  std::replace(rest.begin(), rest.end(), other, separator);
  return base + rest;
}

std::string AsyncFileMethods::NameProblemForServer(const std::string& localPath, const CVSharepoint& site) {
  const std::string localRoot = LocalRootOf(site);
  if (localPath.size() <= localRoot.size() || localPath.compare(0, localRoot.size(), localRoot) != 0) {
    return "it does not lie below the storage's folder " + localRoot;
  }
  std::size_t start = localRoot.size();
  while (start <= localPath.size()) {
    std::size_t end = localPath.find('/', start);
    if (end == std::string::npos) end = localPath.size();
    const std::string name = localPath.substr(start, end - start);
    if (name.empty() || name == "." || name == "..") return "it has an empty, \".\" or \"..\" component";
    if (name.find('\\') != std::string::npos) {
      return "the name \"" + name + "\" holds a backslash, which the server takes for a folder separator";
    }
    if (auto problem = ServerNameRules::NameProblem(name, site.StorageType); !problem.empty()) {
      return "\"" + name + "\": " + problem;
    }
    start = end + 1;
  }
  return "";
}

std::int32_t AsyncFileMethods::CheckResponseString(const std::string& reply) {
  try {
    if (reply.empty()) return SYNC_RETURN_FAILED;
    if (reply == "0;") return SYNC_RETURN_OK;
    // A reply that does not begin with a number is no success.
    return ResultCodeFromReply(reply);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "CheckResponseString", failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t AsyncFileMethods::CheckResponseCode(int status) { return ResultCodeFromHttpStatus(status); }

std::string AsyncFileMethods::GetMD5ForData(const std::string& data) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), digest, &length, EVP_md5(), nullptr) != 1) return "";
  static constexpr char kHex[] = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < length; ++i) {
    text += kHex[digest[i] >> 4];
    text += kHex[digest[i] & 0x0F];
  }
  return text;
}

std::string AsyncFileMethods::GetSiteNameForFileWithAction(const CVFileWithAction& file) {
  return CVStaticHelpers::GetSiteNameForLocalPath(file.nFilePath);
}

std::int64_t AsyncFileMethods::PartCount(std::int64_t size, std::int64_t partBytes) {
  if (partBytes <= 0 || size <= 0) return 1;
  return std::max<std::int64_t>(1, size / partBytes + (size % partBytes != 0 ? 1 : 0));
}

bool AsyncFileMethods::PartialUploadPossible(int wsVersionLevel, const std::string& storageType) {
  const std::string type = Lower(storageType);
  return wsVersionLevel >= 2 && type != "sp" && type != "o365";
}

std::int64_t AsyncFileMethods::PartSizeKbFor(const std::string& storageType, std::int64_t configuredKb) {
  return Lower(storageType) == "azure" ? kAzurePartSizeKb : configuredKb;
}

bool AsyncFileMethods::CheckFileSize(std::int64_t size, const std::string& CompareForFile) {
  auto stamp = FileStamp(CompareForFile);
  return stamp && stamp->first == size;
}

// --- Helpers ---

std::int64_t AsyncFileMethods::ConfiguredPartSizeKb() {
  std::function<std::int64_t()> source;
  {
    std::lock_guard<std::mutex> lock(hooksLock_);
    source = partSizeSource_;
    if (!source && serverPartSizeKb_ > 0) return serverPartSizeKb_;
  }
  if (source) return source();
  const std::int64_t fetched = CVHandler::Instance().GetPartSizeNSNumber();
  std::lock_guard<std::mutex> lock(hooksLock_);
  if (fetched > 0) serverPartSizeKb_ = fetched;
  return fetched;
}

std::shared_ptr<AsyncFileUploader> AsyncFileMethods::NewUploader() {
  std::function<bool()> shouldRun;
  {
    std::lock_guard<std::mutex> lock(hooksLock_);
    shouldRun = syncMainThreadShouldRun_;
  }
  auto uploader = std::make_shared<AsyncFileUploader>(clock_, shouldRun);
  {
    std::lock_guard<std::mutex> lock(cvWSLock_);
    cvWS.push_back(uploader);
  }
  // A stop that came before the uploader was in place still reaches it.
  if (Stopped()) uploader->StopFileUploading();
  return uploader;
}

void AsyncFileMethods::DropUploader(const std::shared_ptr<AsyncFileUploader>& uploader) {
  std::lock_guard<std::mutex> lock(cvWSLock_);
  std::erase(cvWS, uploader);
}

bool AsyncFileMethods::PauseUnlessStopped(std::chrono::nanoseconds duration) {
  std::shared_ptr<const Clock> clock = clock_ ? clock_ : ASIHTTPRequest::GetClock();
  std::unique_lock<std::mutex> lock(cvWSLock_);
  stopCondition_.wait_for(lock, clock->Scaled(duration), [this] { return Stopped(); });
  return !Stopped();
}

void AsyncFileMethods::StopCurrentAction() {
  std::vector<std::shared_ptr<AsyncFileUploader>> uploaders;
  {
    std::lock_guard<std::mutex> lock(cvWSLock_);
    actionWasStoppedByUser_ = true;
    uploaders = cvWS;
    stopCondition_.notify_all();
  }
  for (const auto& uploader : uploaders) uploader->StopFileUploading();
}

// --- The token loop of rename, create and delete ---

std::optional<AsyncFileMethods::Target> AsyncFileMethods::Begin(const char* method, const CVFileWithAction& item,
                                                                std::int32_t action) {
  actionWasStoppedByUser_ = false;
  currentAction_ = action;
  auto found = CVStaticHelpers::GetSpSiteForLocalPath(item.nFilePath);
  if (!found) {
    Log(method, "Site for " + item.nFilePath + " not exist (nil)");
    return std::nullopt;
  }
  Target target;
  {
    std::lock_guard<std::recursive_mutex> lock(CVConfiguration::Instance().fSpSitesLock);
    target.site = *found;
  }
  target.siteName = target.site.Name;
  // A rename without its source would move the storage's own location.
  for (const std::string* path : {&item.nFilePath, &item.oldFilePath}) {
    if (path == &item.oldFilePath && action != kActionRename) continue;
    const std::string problem = NameProblemForServer(*path, target.site);
    if (!problem.empty()) {
      Log(method, "not sent to the server, " + problem + ": " + *path);
      return std::nullopt;
    }
  }
  target.servPath = generateServerPath(item.nFilePath, target.site);
  return target;
}

std::int32_t AsyncFileMethods::TokenLoop(const Target& target,
                                         const std::function<PassResult(const std::string& token)>& pass) {
  CVHandler& handler = CVHandler::Instance();
  std::int32_t code = SYNC_RETURN_FAILED;
  for (int round = 0; round < kTokenPasses; ++round) {
    // A stopped call tells nothing of the server: the item stays for later.
    if (Stopped()) return SYNC_RETURN_LOCKED;
    const std::string token = handler.UsableCVToken(target.siteName);
    if (Stopped()) return SYNC_RETURN_LOCKED;
    if (token.empty()) continue;
    mobileClient = std::make_shared<MobileClientWS>();
    PassResult result = pass(token);
    code = result.code;
    if (code != SYNC_RETURN_OK && code != SYNC_RETURN_RENAME_SOURCE_GONE && Stopped()) return SYNC_RETURN_LOCKED;
    if (!result.badToken) return code;
    handler.RemoveCVToken(target.siteName);
  }
  return code;
}

std::int32_t AsyncFileMethods::RenameFileOnServer(CVFileWithAction& item) { return RenameFileOnServer(item, true); }
std::int32_t AsyncFileMethods::CreateFolderOnServer(CVFileWithAction& item) {
  return CreateFolderOnServer(item, true);
}
std::int32_t AsyncFileMethods::DeleteFileOnServer(CVFileWithAction& item) { return DeleteFileOnServer(item, true); }
std::int32_t AsyncFileMethods::DeleteFolderOnServer(CVFileWithAction& item) {
  return DeleteFolderOnServer(item, true);
}

std::int32_t AsyncFileMethods::RenameFileOnServer(CVFileWithAction& item, bool writeState) {
  const char* method = "RenameFileOnServer";
  try {
    auto target = Begin(method, item, kActionRename);
    if (!target) return SYNC_RETURN_FAILED;
    const std::string from = generateServerPath(item.oldFilePath, target->site);
    const std::string& to = target->servPath;
    return TokenLoop(*target, [&](const std::string& token) {
      std::string reply = mobileClient->MoveFile(token, from, to);
      Log(method, "Result rename: " + reply);
      if (reply.starts_with("-6;") && reply.find("Error Code - 183") != std::string::npos) {
        // The target is taken: only a whole comparison tells what stands there now.
        std::function<void(bool)> handler;
        {
          std::lock_guard<std::mutex> lock(hooksLock_);
          handler = firstTimeSyncPerformed_;
        }
        if (handler) handler(false);
      }
      if (CVHandler::IsNotFoundReply(reply)) reply = "-61;";
      PassResult result;
      result.code = CheckResponseString(reply);
      if (result.code == SYNC_RETURN_OK || result.code == SYNC_RETURN_RENAME_SOURCE_GONE) {
        CrashPoint("server-rename-done");
        if (writeState) AsyncFileCommonPart::WriteRenameOperationToDownloadedFiles(item);
        return result;
      }
      CVEventLogger::WriteMainLogMessage("Mobile: MoveFile - " + reply + ", " + from + " to " + to);
      result.badToken = CVHandler::IsBadTokenReply(reply);
      return result;
    });
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("AsyncFileMethods->RenameFileOnServer: ") + failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t AsyncFileMethods::CreateFolderOnServer(CVFileWithAction& item, bool writeToLog) {
  const char* method = "CreateFolderOnServer";
  try {
    auto target = Begin(method, item, kActionCreateFolder);
    if (!target) return SYNC_RETURN_FAILED;
    int round = 0;
    std::int32_t code = TokenLoop(*target, [&](const std::string& token) {
      const bool lastRound = ++round == kTokenPasses;
      std::string reply = mobileClient->CreateFolder(token, target->servPath);
      PassResult result;
      if (reply.empty()) {
        Log(method, "Result parsing == (nil)");
      } else if (reply.starts_with("0;")) {
        Log(method, "Create folder successfully: " + reply);
      } else if (CVHandler::IsBadTokenReply(reply)) {
        Log(method, "Create folder bad token: " + reply);
        result.code = CheckResponseString(reply);
        result.badToken = true;
        if (lastRound) Log(method, "Undefined error");
        return result;
      } else {
        Log(method, "Create folder not successfully: " + reply);
        const std::string info =
            CVHandler::Instance().GetFileInfoReturnForPath(target->servPath, target->siteName);
        if (info.empty()) {
          reply = "-5;";
        } else if (info.starts_with("0;D;")) {
          reply = "0;";  // the folder is there, which is all that was asked
        } else {
          // A file of that name is no folder to put things in.
          Log(method, "Folder not create, and don't exist: " + info);
        }
      }
      result.code = CheckResponseString(reply);
      if (result.code == SYNC_RETURN_OK) {
        if (writeToLog) AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
        return result;
      }
      CVEventLogger::WriteMainLogMessage("Mobile: CreateFolder - " + reply + ", " + target->servPath);
      if (lastRound) Log(method, "Undefined error");
      return result;
    });
    return code;
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("AsyncFileMethods->CreateFolderOnServer: ") + failure.what());
    return SYNC_RETURN_FAILED;
  }
}

std::int32_t AsyncFileMethods::DeleteFolderOnServer(CVFileWithAction& item, bool writeState) {
  return DeleteOnServer(item, writeState, true);
}

std::int32_t AsyncFileMethods::DeleteFileOnServer(CVFileWithAction& item, bool writeState) {
  return DeleteOnServer(item, writeState, false);
}

std::int32_t AsyncFileMethods::DeleteOnServer(CVFileWithAction& item, bool writeState, bool folder) {
  const char* method = folder ? "DeleteFolderOnServer" : "DeleteFileOnServer";
  const char* call = folder ? "DeleteFolder" : "DeleteFile";
  try {
    auto target = Begin(method, item, folder ? kActionDeleteFolder : kActionDeleteFile);
    if (!target) return SYNC_RETURN_FAILED;
    return TokenLoop(*target, [&](const std::string& token) {
      std::string reply = folder ? mobileClient->DeleteFolder(token, target->servPath)
                                 : mobileClient->DeleteFile(token, target->servPath);
      if (!folder) Log(method, "File: " + target->servPath + "  result: " + reply);
      // Gone already is as good as deleted; closed by a restriction is not.
      if (reply.starts_with("-6;")) {
        reply = "0;";
      } else if (reply.starts_with("-7;")) {
        reply = "-6;";
      }
      PassResult result;
      result.code = CheckResponseString(reply);
      if (result.code == SYNC_RETURN_OK) {
        CrashPoint("server-delete-done");
        if (writeState) AsyncFileCommonPart::RemoveFromDownloadedFiles(item);
        return result;
      }
      CVEventLogger::WriteMainLogMessage(std::string("Mobile: ") + call + " - " + reply + ", " + target->servPath);
      result.badToken = CVHandler::IsBadTokenReply(reply);
      return result;
    });
  } catch (const std::exception& failure) {
    CVEventLogger::WriteExceptionsLog(std::string("AsyncFileMethods->") + method + ": " + failure.what());
    return SYNC_RETURN_FAILED;
  }
}

// --- Upload ---

std::int32_t AsyncFileMethods::UploadFileToServer(CVFileWithAction& item) {
  const Sent sent = SendFile(item);
  return sent.code == SYNC_RETURN_OK ? RecordSent(item, sent) : sent.code;
}

ServerFileOperations::Sent AsyncFileMethods::SendFile(CVFileWithAction& item) {
  const char* method = "UploadFileToServer";
  Sent sent;
  auto ended = [&sent](std::int32_t code) {
    sent.code = code;
    return sent;
  };
  try {
    auto target = Begin(method, item, kActionUpload);
    if (!target) return ended(SYNC_RETURN_FAILED);
    // The server gets the name as the sync holds it; the bytes come from the
    // name as it stands on this disk, which does not normalise names.
    const std::string path = CVStaticHelpers::ExistingForm(item.nFilePath);
    CVHandler& handler = CVHandler::Instance();
    for (int round = 0; round < kUploadPasses; ++round) {
      const std::string token = handler.UsableCVToken(target->siteName);
      if (token.empty()) continue;
      if (Stopped()) return ended(SYNC_RETURN_LOCKED);
      // What went up, to tell afterwards whether the file changed meanwhile.
      sent.stamp = FileStamp(path);
      int status = 0;
      try {
        status = UploadFileToServerAtPath51(path, token, target->servPath, target->site);
      } catch (const std::exception& failure) {
        CVEventLogger::LogException(kClass, method, failure.what());
        status = -1;
      }
      const std::int32_t code = CheckResponseCode(status);
      if (code == SYNC_RETURN_OK) {
        // Recorded even when a stop came after the end: the server has the file.
        sent.serverInfo = handler.GetFileInfo(target->servPath, target->siteName);
        return ended(SYNC_RETURN_OK);
      }
      if (Stopped() || status == AsyncFileUploader::kStatusStopped) return ended(SYNC_RETURN_LOCKED);
      if (status == AsyncFileUploader::kStatusFileChanged) {
        Log(method, "File no found, upload break");
        return ended(SYNC_RETURN_LOCKED);
      }
      if (status == AsyncFileUploader::kStatusFailure || status == AsyncFileUploader::kStatusPartExists) {
        handler.RemoveCVToken(target->siteName);
        continue;
      }
      if (code == SYNC_RETURN_NOT_AUTHORIZED && round == 0) {
        handler.RemoveCVToken(target->siteName);
        continue;
      }
      return ended(code);
    }
    return ended(SYNC_RETURN_FAILED);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, method, failure.what());
    return ended(SYNC_RETURN_FAILED);
  }
}

std::int32_t AsyncFileMethods::RecordSent(CVFileWithAction& item, const Sent& sent) {
  try {
    if (sent.serverInfo) RecordUpload(item, *sent.serverInfo, sent.stamp);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "UploadFileToServer", failure.what());
  }
  return SYNC_RETURN_OK;
}

std::shared_ptr<ServerFileOperations> AsyncFileMethods::Beside() {
  auto other = std::make_shared<AsyncFileMethods>(clock_);
  // Known here once, so that no upload beside asks the server for it again.
  const std::int64_t partKb = ConfiguredPartSizeKb();
  std::lock_guard<std::mutex> lock(hooksLock_);
  other->firstTimeSyncPerformed_ = firstTimeSyncPerformed_;
  other->syncMainThreadShouldRun_ = syncMainThreadShouldRun_;
  other->partSizeSource_ = partSizeSource_;
  other->serverPartSizeKb_ = partKb;
  return other;
}

bool AsyncFileMethods::RecordIfServerHoldsSame(CVFileWithAction& item, const std::vector<std::string>& serverInfo) {
  const char* method = "RecordIfServerHoldsSame";
  try {
    const std::string path = CVStaticHelpers::ExistingForm(item.nFilePath);
    const auto before = FileStamp(path);
    const auto serverSize = serverInfo.size() > 2 ? Number(serverInfo[2]) : std::nullopt;
    if (!before || !serverSize || serverInfo[1] != "F" || *serverSize != before->first) return false;
    auto target = Begin(method, item, kActionUpload);
    if (!target) return false;
    const std::string token = CVHandler::Instance().UsableCVToken(target->siteName);
    if (token.empty() || Stopped()) return false;
    const std::string serverHash =
        MobileClientWS().GetFileHashWithToken(token, target->servPath, ConfiguredPartSizeKb() * 1024, false);
    // The server spells the MD5 in base64, the local one comes in hex.
    const auto localHex = CVStaticHelpers::FileMD5HashCreateWithPath(path, 1 << 16);
    if (!localHex || FileStamp(path) != before) return false;
    const std::string localHash = ASIHTTPRequest::base64EncodeDouble(*localHex);
    if (localHash.empty() || serverHash != localHash) return false;
    Log(method, "the server already holds this content, no copy is made: " + item.nFilePath);
    RecordUpload(item, serverInfo, before);
    return true;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, method, failure.what());
    return false;
  }
}

void AsyncFileMethods::RecordUpload(CVFileWithAction& item, const std::vector<std::string>& info,
                                    const std::optional<std::pair<std::int64_t, std::int64_t>>& before) {
  const char* method = "UploadFileToServer";
  std::optional<std::int64_t> size = info.size() > 2 ? Number(info[2]) : std::nullopt;
  std::optional<std::int64_t> modified = info.size() > 3 ? Number(info[3]) : std::nullopt;
  if (!size || !modified) {
    Log(method, "the server's file information cannot be read, no record written: " + item.nFilePath);
    return;
  }
  item.fileSize = *size;
  item.dateModified = *modified;
  // The server's time goes onto the file only when the file is still what went
  // up; an edit made meanwhile keeps its own time and is seen as a change.
  const std::string onDisk = CVStaticHelpers::ExistingForm(item.nFilePath);
  if (before && FileStamp(onDisk) == before) {
    struct timespec times[2] {};
    times[0].tv_nsec = UTIME_OMIT;
    times[1].tv_sec = static_cast<time_t>(*modified);
    if (::utimensat(AT_FDCWD, onDisk.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) {
      Log(method, "the modification time stays as it was for " + item.nFilePath + ": " + std::strerror(errno));
    }
  } else {
    Log(method, "the file changed during its upload and goes up again: " + item.nFilePath);
  }
  CrashPoint("upload-sent");
  AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
}

int AsyncFileMethods::UploadFileToServerAtPath(const std::string& path, const std::string& token,
                                               const std::string& servPath) {
  std::shared_ptr<AsyncFileUploader> uploader;
  try {
    uploader = NewUploader();
    const int status = uploader->UploadFileToServerAtPath(path, token, servPath);
    DropUploader(uploader);
    return status;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, "UploadFileToServerAtPath", failure.what());
    if (uploader) DropUploader(uploader);
    return -999;
  }
}

void AsyncFileMethods::ChangeVariableForVisiblePercent(std::int64_t partSize, std::int64_t step,
                                                       std::int64_t fileSize) {
  SyncListener::SetParametrForPartUploadWithFullSize(fileSize, step, partSize);
}

int AsyncFileMethods::UploadFileToServerAtPath51(const std::string& path, const std::string& token,
                                                 const std::string& servPath, const CVSharepoint& site) {
  const char* method = "UploadFileToServerAtPath51";
  std::shared_ptr<AsyncFileUploader> uploader;
  try {
    uploader = NewUploader();
    MobileClientWS mobile;
    const bool partial = PartialUploadPossible(CVHandler::Instance().GetWSVersion(), site.StorageType);

    std::int64_t size = 0;
    if (auto stamp = FileStamp(path)) {
      size = stamp->first;
    } else {
      // Gone: pending parts of it would only wait on the server for nothing.
      const std::string reply = mobile.CancelPartialUploadWithToken(token, servPath);
      if (reply.starts_with("0;")) {
        Log(method, "Cancel Partial Upload Successfully: " + reply);
        DropUploader(uploader);
        return 0;
      }
      Log(method, "Cancel Partial Upload No Successfully: " + reply);
    }

    const std::int64_t partKb = partial ? PartSizeKbFor(site.StorageType, ConfiguredPartSizeKb()) : 0;
    const std::int64_t partBytes = partKb * 1024;
    int status = 0;
    if (!partial || size == 0 || partKb <= 0 || size < partBytes) {
      CVEventLogger::WriteMainLogMessage("NO PART UPLOAD");
      status = uploader->UploadFileToServerAtPath(path, token, servPath);
    } else {
      CVEventLogger::WriteMainLogMessage("PART UPLOAD");
      PartUpload upload{path, servPath, site.Name, token, size, partBytes, {}};
      status = RunPartLoop(mobile, upload);
    }
    DropUploader(uploader);
    return status;
  } catch (const std::exception& failure) {
    CVEventLogger::LogException(kClass, method, failure.what());
    if (uploader) DropUploader(uploader);
    return -999;
  }
}

int AsyncFileMethods::SendPart(AsyncFileUploader& uploader, PartUpload& upload, std::int64_t step,
                               const std::vector<std::string>& serverMD5, std::string& hash) {
  const char* method = "UploadFileToServerAtPath51";
  CVHandler& handler = CVHandler::Instance();
  int status = 0;
  for (int repeats = 0;; ++repeats) {
    for (int attempt = 0; attempt < 2; ++attempt) {
      std::string token;
      {
        std::lock_guard<std::mutex> lock(upload.tokenLock);
        token = upload.token;
      }
      Log(method, "Step k for in part upload: " + std::to_string(step));
      std::vector<std::string> localMD5;
      status = uploader.PartialUploadFileToServerAtPath(upload.path, token, upload.servPath, serverMD5, localMD5,
                                                        upload.partBytes, step);
      Log(method, "Result part upload one step: " + std::to_string(status));
      if (!localMD5.empty()) hash = localMD5.back();
      if (!CheckFileSize(upload.size, upload.path)) return AsyncFileUploader::kStatusFileChanged;
      if (status != 401 || Stopped()) break;
      // A refused token is renewed once; the parts sent so far stay on the server.
      std::lock_guard<std::mutex> lock(upload.tokenLock);
      if (upload.token == token) {
        handler.RemoveCVToken(upload.siteName);
        upload.token = handler.CheckCVToken(upload.siteName);
      }
      Log(method, "Remove token in for k cicle, NEW Token for site &&& k &&&  token: " + upload.token);
    }
    CVEventLogger::WriteMainLogMessage("File part: " + upload.path + " and step: " + std::to_string(step) +
                                       " and server hashs count: " + std::to_string(serverMD5.size()) +
                                       ",  Result part upload: < " + std::to_string(status) + " >");
    if (IsSuccess(status) || status == AsyncFileUploader::kStatusPartExists) return status;
    if (status == 100) return AsyncFileUploader::kStatusStopped;
    if (status > 499 || status == AsyncFileUploader::kStatusFileChanged || status == 0 || status == 401) {
      return status == 401 ? AsyncFileUploader::kStatusFailure : status;
    }
    // Any other answer: the same part again, a few times, after a growing pause.
    if (repeats == kPartRepeats) {
      Log(method, "part " + std::to_string(step) + " given up after " + std::to_string(kPartRepeats) +
                      " repeats, status " + std::to_string(status));
      return status;
    }
    if (!PauseUnlessStopped(kPartRepeatPause * (repeats + 1))) return AsyncFileUploader::kStatusStopped;
  }
}

int AsyncFileMethods::RunPartLoop(MobileClientWS& mobile, PartUpload& upload) {
  const char* method = "UploadFileToServerAtPath51";
  const std::int64_t partCount = PartCount(upload.size, upload.partBytes);
  // The server's hashes, asked once for the round: a part it holds already is not sent again.
  const auto serverMD5 = mobile.GetHashesWithServerPath(upload.servPath, upload.partBytes, upload.siteName);
  if (!serverMD5) return AsyncFileUploader::kStatusStopped;
  CVEventLogger::WriteMainLogMessage("File size is " + std::to_string(upload.size) + ", block size is " +
                                     std::to_string(upload.partBytes) + ", total part count is " +
                                     std::to_string(partCount));

  // The progress maps onto the whole file only while the parts go.
  struct PercentReset {
    AsyncFileMethods& self;
    ~PercentReset() { self.ChangeVariableForVisiblePercent(0, 0, 0); }
  } resetPercent{*this};

  std::vector<std::string> hashes(static_cast<std::size_t>(partCount));
  std::mutex progressLock;
  std::int64_t nextStep = 0;
  std::optional<int> failure;  // the status of the first part that failed
  // The senders answer the stop of the thread that runs the upload.
  CancelFlag* cancel = CancelFlag::ForThisThread();
  auto sendParts = [&] {
    std::optional<CancelFlag::Binding> binding;
    if (cancel) binding.emplace(*cancel);
    auto uploader = NewUploader();
    for (;;) {
      std::int64_t step = 0;
      {
        std::lock_guard<std::mutex> lock(progressLock);
        if (failure || nextStep == partCount) break;
        step = nextStep++;
        ChangeVariableForVisiblePercent(upload.partBytes, step, upload.size);
      }
      std::string hash;
      const int status = Stopped() ? AsyncFileUploader::kStatusStopped
                                   : SendPart(*uploader, upload, step, *serverMD5, hash);
      std::lock_guard<std::mutex> lock(progressLock);
      if ((IsSuccess(status) || status == AsyncFileUploader::kStatusPartExists) && !hash.empty()) {
        hashes[static_cast<std::size_t>(step)] = hash;
      } else if (!failure) {
        failure = IsSuccess(status) ? AsyncFileUploader::kStatusFailure : status;
      }
    }
    DropUploader(uploader);
  };
  {
    std::vector<std::thread> senders;
    const auto extra = std::min<std::int64_t>(kPartsInFlight, partCount) - 1;
    for (std::int64_t i = 0; i < extra; ++i) senders.emplace_back(sendParts);
    sendParts();
    for (auto& sender : senders) sender.join();
  }
  if (Stopped()) return AsyncFileUploader::kStatusStopped;
  if (failure) {
    CVEventLogger::WriteMainLogMessage(std::string("3) ") + kClass + " - " + method +
                                       " -> Error finish part upload!_2");
    return *failure;
  }
  Log(method, "finish bool value: 1, result part upload: 200 token: " + upload.token);
  // Every part must be known to be on the server before it assembles them.
  const std::vector<std::string>& localMD5 = hashes;
  auto stored = mobile.GetHashesWithServerPath(upload.servPath, upload.partBytes, upload.siteName);
  if (!stored) return AsyncFileUploader::kStatusFailure;
  const std::set<std::string> held(stored->begin(), stored->end());
  std::size_t matching = 0;
  for (const auto& hash : localMD5) matching += held.count(hash);
  if (matching + 1 < localMD5.size()) {
    CVEventLogger::WriteMainLogMessage("WARNING TOKEN COLL DOES NOT MATCH ");
    return AsyncFileUploader::kStatusFailure;
  }
  if (mobile.FinishPartialUploadWithForSite(upload.siteName, upload.servPath, upload.partBytes, localMD5) == 0) {
    CVEventLogger::WriteMainLogMessage("Finish part upload successfully");
    return 200;
  }
  CVEventLogger::WriteMainLogMessage(std::string("2) ") + kClass + " - " + method + " -> Error finish part upload!");
  mobile.CancelPartialUploadWithToken(upload.token, upload.servPath);
  return AsyncFileUploader::kStatusFailure;
}
