#include "ServerState.h"

#include <fstream>
#include <sstream>
#include <stdexcept>

#include "WireFormats.h"

namespace devserver {
namespace {

bool IsSameOrInside(const std::string& path, const std::string& folder) {
  if (folder.empty()) return true;
  return path == folder ||
         (path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
          path[folder.size()] == '/');
}

std::string NormalisedRelative(const std::string& relativePath) {
  auto components = SplitRelativePath(relativePath);
  if (!components) throw std::invalid_argument("bad relative path '" + relativePath + "'");
  return JoinRelativePath(*components);
}

}  // namespace

void RestrictionList::Add(const std::string& storage, const std::string& relativePath) {
  auto relative = NormalisedRelative(relativePath);
  std::lock_guard<std::mutex> lock(mutex_);
  paths_.emplace_back(AsciiLower(storage), std::move(relative));
}

void RestrictionList::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  paths_.clear();
}

bool RestrictionList::Covers(const std::string& storage, const std::string& relativePath) const {
  const auto key = AsciiLower(storage);
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [name, path] : paths_) {
    if (name == key && IsSameOrInside(relativePath, path)) return true;
  }
  return false;
}

bool RestrictionList::HasInside(const std::string& storage, const std::string& relativePath) const {
  const auto key = AsciiLower(storage);
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& [name, path] : paths_) {
    if (name == key && path != relativePath && IsSameOrInside(path, relativePath)) return true;
  }
  return false;
}

ServerState::ServerState(ServerOptions options)
    : options_(std::move(options)), storages_(options_), versionReply_(options_.versionReply) {
  for (const auto& restricted : options_.restricted) {
    if (!storages_.Find(restricted.storage)) {
      throw std::invalid_argument("restricted path in unknown storage '" + restricted.storage +
                                  "'");
    }
    restrictions_.Add(restricted.storage, restricted.path);
  }
  for (const auto& setting : options_.faults)
    faults_.Add(setting.name, setting.fault, setting.count);
  for (const auto& request : options_.uploadRequests) AddUploadRequest(request.guid, request.user);
  for (const auto& [user, status] : options_.deviceStatus) deviceStatus_[AsciiLower(user)] = status;
}

const UserAccount* ServerState::FindUser(const std::string& name) const {
  // A directory's names: "Alice" and "alice" are one user.
  const std::string wanted = AsciiLower(name);
  for (const auto& user : options_.users) {
    if (AsciiLower(user.name) == wanted) return &user;
  }
  return nullptr;
}

std::string ServerState::PolicyFor(const std::string& user) const {
  for (const auto& setting : options_.policies) {
    if (AsciiLower(setting.user) != AsciiLower(user)) continue;
    std::ifstream in(setting.file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // A policy that lets the user change storages and hands them every storage
  // they may reach, with the location it has here.
  std::string storages;
  for (const Storage* storage : storages_.ForUser(user)) {
    storages += "<Storage><Type>" + EscapeXmlText(storage->config().type) + "</Type><Name>" +
                EscapeXmlText(storage->name()) + "</Name><Path>" + EscapeXmlText(storage->location()) + "</Path>";
    if (const auto& own = storage->config().credentials) {
      storages += "<AlterAuth>true</AlterAuth><Username>" + EscapeXmlText(own->name) + "</Username><Password>" +
                  EscapeXmlText(own->password) + "</Password>";
    }
    storages += "</Storage>";
  }
  return "<Policy><Settings><Editable>true</Editable><ExternalSharing>true</ExternalSharing>"
         "<InternalSharing>true</InternalSharing><UploadRequests>true</UploadRequests>"
         "<EmailDocument>true</EmailDocument><ExpireRequired>false</ExpireRequired><Desktop>5</Desktop>"
         "</Settings><Corvalink><URL edit=\"true\"></URL><Username>" +
         EscapeXmlText(user) + "</Username></Corvalink><Storages>" + storages + "</Storages></Policy>";
}

std::string ServerState::DeviceStatusFor(const std::string& user) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = deviceStatus_.find(AsciiLower(user));
  return found == deviceStatus_.end() ? "1;A" : found->second;
}

void ServerState::SetDeviceStatus(const std::string& user, std::string status) {
  std::lock_guard<std::mutex> lock(mutex_);
  deviceStatus_[AsciiLower(user)] = std::move(status);
}

int ServerState::LoginFailures(const std::string& user) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto found = loginFailures_.find(AsciiLower(user));
  return found == loginFailures_.end() ? 0 : found->second;
}

bool ServerState::NoteLoginFailure(const std::string& user) {
  std::lock_guard<std::mutex> lock(mutex_);
  int count = ++loginFailures_[AsciiLower(user)];
  return options_.lockAfterFailures > 0 && count >= options_.lockAfterFailures;
}

bool ServerState::IsLoginLocked(const std::string& user) const {
  return options_.lockAfterFailures > 0 && LoginFailures(user) >= options_.lockAfterFailures;
}

void ServerState::NoteLoginSuccess(const std::string& user) {
  std::lock_guard<std::mutex> lock(mutex_);
  loginFailures_.erase(AsciiLower(user));
}

std::string ServerState::versionReply() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return versionReply_;
}

void ServerState::SetVersionReply(std::string version) {
  std::lock_guard<std::mutex> lock(mutex_);
  versionReply_ = std::move(version);
}

bool ServerState::HasNewerLogin() const {
  const auto version = versionReply();
  long numbers[3] = {0, 0, 0};
  std::size_t start = 0;
  for (int i = 0; i < 3 && start <= version.size(); ++i) {
    const auto dot = version.find('.', start);
    const auto piece =
        version.substr(start, dot == std::string::npos ? std::string::npos : dot - start);
    unsigned long long value = 0;
    if (ParseUnsigned(piece, value) && value < 100000) numbers[i] = static_cast<long>(value);
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  const auto [major, minor, build] = numbers;
  return major > 6 || (major == 6 && minor >= 1) || (major == 6 && minor == 0 && build >= 71);
}

void ServerState::AddUploadRequest(const std::string& guid, const std::string& user) {
  std::lock_guard<std::mutex> lock(mutex_);
  uploadRequests_[AsciiLower(guid)] = user;
}

std::optional<std::string> ServerState::UploadRequestUser(const std::string& guid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto it = uploadRequests_.find(AsciiLower(guid));
  if (it == uploadRequests_.end()) return std::nullopt;
  return it->second;
}

bool ServerState::Pause(std::chrono::milliseconds duration) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !stopSignal_.wait_for(lock, duration, [this] { return stopping_; });
}

void ServerState::BeginStop() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  stopSignal_.notify_all();
}

void ServerState::Log(const std::string& line) const {
  if (options_.log) options_.log(line);
}

}  // namespace devserver
