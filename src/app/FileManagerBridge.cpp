#include "FileManagerBridge.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <limits.h>
#include <system_error>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "CVStorageNames.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "InternalShare51WindowController.h"

using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

constexpr auto kRedrawPeriod = 500ms;
// Paths per CHANGED line: a whole folder synced at once stays a few lines.
constexpr std::size_t kPathsPerLine = 256;

void Log(const std::string& line) { CVEventLogger::WriteMainLogMessage("File manager: " + line); }

// The account's sharing switches as the last sign-in left them.
CVConnection SharingPolicy() {
  CVConfiguration& configuration = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(configuration.fSpSitesLock);
  return configuration.Corvalink;
}

bool IsAccountStorage(const std::string& name) {
  return CVConfiguration::Instance().GetSiteByName(name) != nullptr;
}

std::vector<std::string> StorageNames() {
  CVConfiguration& configuration = CVConfiguration::Instance();
  std::lock_guard<std::recursive_mutex> lock(configuration.fSpSitesLock);
  std::vector<std::string> names;
  for (const auto& site : configuration.fSpSites) {
    if (site && CVStorageNames::IsValid(site->Name)) names.push_back(site->Name);
  }
  return names;
}

// Copies one item to target, never over something already there.
bool CopyWithoutOverwrite(const fs::path& item, const fs::path& target) {
  std::error_code error;
  const auto status = fs::symlink_status(item, error);
  if (fs::exists(fs::symlink_status(target, error))) return false;
  if (fs::is_directory(status)) {
    if (!fs::create_directory(target, error)) return false;
    fs::copy(item, target, fs::copy_options::recursive | fs::copy_options::copy_symlinks, error);
    return !error;
  }
  if (!fs::is_regular_file(status)) return false;  // links, devices, sockets stay where they are
  return fs::copy_file(item, target, fs::copy_options::none, error) && !error;
}

}  // namespace

FileManagerBridge::FileManagerBridge(MainLoop& loop,
                                     std::function<void(const std::string&, const std::string&)> tell,
                                     OpenWindow openWindow)
    : loop_(loop), tell_(std::move(tell)), openWindow_(std::move(openWindow)) {}

FileManagerBridge::~FileManagerBridge() { Stop(); }

void FileManagerBridge::Start() {
  if (started_) return;
  started_ = true;
  timer_ = loop_.AddTimer(kRedrawPeriod, [this] { PushRedraws(); }, false);
}

void FileManagerBridge::Stop() {
  if (!started_) return;
  started_ = false;
  loop_.CancelTimer(timer_);
}

std::string FileManagerBridge::PathProblem(const std::string& path) {
  if (path.empty() || path.front() != '/') return "not an absolute path";
  if (path.size() >= PATH_MAX || path.find('\0') != std::string::npos) return "not a path";
  for (const auto& part : fs::path(path)) {
    if (part == "." || part == "..") return "a \".\" or \"..\" part";
  }
  return "";
}

namespace {

// The state word of a file's clone: zero bytes in step, "1" in work, "2" failed.
std::string FileState(const fs::path& clone) {
  std::ifstream in(clone, std::ios::binary);
  std::string state(4, '\0');
  in.read(state.data(), static_cast<std::streamsize>(state.size()));
  state.resize(static_cast<std::size_t>(in.gcount()));
  if (state.empty()) return "in-step";
  if (state == "1") return "in-work";
  if (state == "2") return "failed";
  return "none";
}

// A folder's clone holds no state of its own: it is failed when a file below it
// failed, in work when one is in work, else in step. Files in step are empty, so
// only the few others are read.
std::string FolderState(const fs::path& clone) {
  std::string state = "in-step";
  std::error_code error;
  for (fs::recursive_directory_iterator entry(clone, error), end; !error && entry != end; entry.increment(error)) {
    std::error_code ignored;
    if (!entry->is_regular_file(ignored) || entry->file_size(ignored) == 0) continue;
    const std::string word = FileState(entry->path());
    if (word == "failed") return word;
    if (word == "in-work") state = word;
  }
  return state;
}

}  // namespace

std::string FileManagerBridge::StateOf(const std::string& path) {
  if (!PathProblem(path).empty()) return "none";
  const std::string clone = IconOverlayInFinderStaticMethods::GetClonnedFilePath(path);
  if (clone == path || !IsAccountStorage(CVStaticHelpers::GetSiteNameForLocalPath(path))) return "none";
  std::error_code error;
  const auto status = fs::symlink_status(clone, error);
  if (fs::is_directory(status)) return FolderState(clone);
  if (!fs::is_regular_file(status)) return "none";  // never met: no badge rather than a guess
  return FileState(clone);
}

std::vector<std::string> FileManagerBridge::Answer(const std::vector<std::string>& request) {
  const std::string& word = request.empty() ? std::string() : request[0];
  if (word == "STATE" && request.size() == 2) return {"STATE", request[1], StateOf(request[1])};
  if (word == "STORAGES" && request.size() == 1) {
    std::vector<std::string> answer{"STORAGES", CVStaticHelpers::GenerateRootPathForStorages()};
    for (auto& name : StorageNames()) answer.push_back(std::move(name));
    return answer;
  }
  if (word == "SEND" && request.size() >= 2) return SendTo(request);
  if (word == "WINDOWS" && request.size() == 1) return Windows();
  if (word == "OPEN" && request.size() >= 2) return OpenWindowFor(request);
  return {"REFUSED", "unknown request"};
}

std::vector<std::string> FileManagerBridge::SendTo(const std::vector<std::string>& request) {
  const std::string& storage = request[1];
  if (auto problem = CVStorageNames::Problem(storage)) {
    Log("a send to the storage name \"" + storage + "\" was refused: " + *problem);
    return {"REFUSED", *problem};
  }
  if (!IsAccountStorage(storage)) return {"REFUSED", "no storage of that name"};
  const fs::path target = CVStaticHelpers::GenerateRootPathForStorages() + "/" + storage;
  std::error_code error;
  if (!fs::is_directory(target, error)) return {"REFUSED", "the storage has no folder"};

  std::size_t failed = 0;
  for (std::size_t i = 2; i < request.size(); ++i) {
    const std::string& item = request[i];
    std::string problem = PathProblem(item);
    // A folder sent into itself would copy for ever.
    if (problem.empty() && (target.string() + "/").rfind(item + "/", 0) == 0) problem = "holds the storage";
    if (problem.empty() && !CopyWithoutOverwrite(item, target / fs::path(item).filename())) {
      problem = "not copied (missing, not a file or folder, or a name already there)";
    }
    if (!problem.empty()) {
      Log("send to " + storage + ": " + item + ": " + problem);
      ++failed;
    }
  }
  const std::size_t items = request.size() - 2;
  if (failed > 0 || items == 0) return {"FAILED", std::to_string(failed)};
  const char* text = items >= 2 ? "Files were sent to the root level of:" : "File was sent to the root level of:";
  if (tell_) tell_("Corvalink Sync", std::string(text) + " " + storage);
  return {"SENT", std::to_string(items)};
}

std::vector<std::string> FileManagerBridge::Windows() {
  std::vector<std::string> answer{"WINDOWS"};
  if (!openWindow_) return answer;
  const CVConnection policy = SharingPolicy();
  if (policy.InternalSharing) answer.emplace_back(kShareToInternal);
  if (policy.ExternalSharing) answer.emplace_back(kShareToExternal);
  answer.emplace_back(kVersions);
  return answer;
}

std::vector<std::string> FileManagerBridge::OpenWindowFor(const std::vector<std::string>& request) {
  const std::string& command = request[1];
  const CVConnection policy = SharingPolicy();
  const char* refusal = nullptr;
  if (command != kShareToInternal && command != kShareToExternal && command != kVersions) {
    refusal = "unknown command";
  } else if (!openWindow_) {
    refusal = kNoWindows;
  } else if (command == kShareToInternal && !policy.InternalSharing) {
    refusal = InternalShare51WindowController::kInternalOff;
  } else if (command == kShareToExternal && !policy.ExternalSharing) {
    refusal = InternalShare51WindowController::kExternalOff;
  } else if (request.size() == 2) {
    refusal = "no items";
  } else if (command == kVersions && request.size() != 3) {
    refusal = "one file at a time";
  }
  if (refusal) return {"REFUSED", refusal};
  const std::vector<std::string> paths(request.begin() + 2, request.end());
  for (const auto& path : paths) {
    // Only items of the account's storages can be shared, never a storage itself.
    std::string problem = PathProblem(path);
    std::error_code error;
    if (problem.empty() && !fs::exists(fs::symlink_status(path, error))) problem = "no such item";
    // The server keeps versions of files, not of folders.
    if (problem.empty() && command == kVersions && !fs::is_regular_file(fs::symlink_status(path, error))) {
      problem = "not a file";
    }
    const std::string storage = CVStaticHelpers::GetSiteNameForLocalPath(path);
    if (problem.empty() && (CVStaticHelpers::serverPathFromLocalPath(path).empty() || !IsAccountStorage(storage) ||
                            path == CVStaticHelpers::GenerateRootPathForStorages() + "/" + storage)) {
      problem = "not in a storage";
    }
    if (!problem.empty()) {
      Log(command + " refused for " + path + ": " + problem);
      return {"REFUSED", problem};
    }
  }
  if (!openWindow_(command, paths)) return {"REFUSED", kNoWindows};
  return {"OPENED"};
}

void FileManagerBridge::Serve(LineChannel& channel, const std::string& word) {
  if (word == kSubscribeWord) {
    // The timer writes; a line that does not fit at once drops the subscriber.
    fcntl(channel.fd(), F_SETFL, fcntl(channel.fd(), F_GETFL) | O_NONBLOCK);
    {
      std::lock_guard<std::mutex> lock(subscribersLock_);
      subscribers_.insert(&channel);
      if (!channel.WriteLine({"SUBSCRIBED"})) shutdown(channel.fd(), SHUT_RDWR);
    }
    // Nothing is read; the wait ends when the peer goes or the server stops.
    while (channel.ReadLine(1h) || channel.timedOut()) {
    }
    std::lock_guard<std::mutex> lock(subscribersLock_);
    subscribers_.erase(&channel);
    return;
  }
  while (true) {
    auto request = channel.ReadLine(1h);
    if (!request) {
      if (channel.timedOut()) continue;
      return;
    }
    if (!channel.WriteLine(Answer(*request))) return;
  }
}

void FileManagerBridge::PushRedraws() {
  std::set<std::string> paths = IconOverlayInFinderStaticMethods::TakePendingRedraws();
  if (paths.empty()) return;
  // A folder's badge follows its files: the folders above a change up to its
  // storage's own folder are drawn again too.
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages() + "/";
  for (const auto& changed : std::vector<std::string>(paths.begin(), paths.end())) {
    if (changed.rfind(root, 0) != 0) continue;
    for (auto folder = fs::path(changed).parent_path(); folder.string().size() > root.size();
         folder = folder.parent_path()) {
      paths.insert(folder.string());
    }
  }
  std::vector<std::vector<std::string>> lines;
  for (const auto& path : paths) {
    if (lines.empty() || lines.back().size() > kPathsPerLine) lines.push_back({"CHANGED"});
    lines.back().push_back(path);
  }
  std::lock_guard<std::mutex> lock(subscribersLock_);
  for (LineChannel* subscriber : subscribers_) {
    for (const auto& line : lines) {
      if (subscriber->WriteLine(line)) continue;
      Log("a file manager that did not take its redraws was let go");
      shutdown(subscriber->fd(), SHUT_RDWR);  // its session sees the end and leaves
      break;
    }
  }
}
