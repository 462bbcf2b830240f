#include "LocalSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

std::string ErrnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

bool MakePrivateFolder(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return false;
  struct stat info {};
  if (lstat(path.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != getuid()) return false;
  return (info.st_mode & 0777) == 0700 || chmod(path.c_str(), 0700) == 0;
}

bool FillAddress(const std::string& path, sockaddr_un& address, std::string& error) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    error = "the socket path is too long: " + path;
    return false;
  }
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

std::string LocalEndpoint::Folder(const std::string& fallback) {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime && *runtime == '/') {
    std::string folder = std::string(runtime) + "/corvalink-sync";
    if (MakePrivateFolder(folder)) return folder;
  }
  return MakePrivateFolder(fallback) ? fallback : "";
}

std::string LocalEndpoint::SocketPath(const std::string& fallback) {
  return Folder(fallback) + "/corvalink-sync.socket";
}

std::string LocalEndpoint::LockPath(const std::string& fallback) { return Folder(fallback) + "/corvalink-sync.lock"; }

std::unique_ptr<InstanceLock> InstanceLock::TryAcquire(const std::string& path, std::string& error) {
  int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd < 0) {
    error = ErrnoText("cannot open " + path);
    return nullptr;
  }
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK ? "" : ErrnoText("cannot lock " + path);
    close(fd);
    return nullptr;
  }
  return std::unique_ptr<InstanceLock>(new InstanceLock(fd));
}

InstanceLock::~InstanceLock() {
  if (fd_ >= 0) close(fd_);  // the lock goes with the descriptor
}

LineChannel::~LineChannel() {
  if (fd_ >= 0) close(fd_);
}

std::unique_ptr<LineChannel> LineChannel::Connect(const std::string& path, std::string& error) {
  sockaddr_un address;
  if (!FillAddress(path, address, error)) return nullptr;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = ErrnoText("socket");
    return nullptr;
  }
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    error = ErrnoText("cannot connect to " + path);
    close(fd);
    return nullptr;
  }
  return std::make_unique<LineChannel>(fd);
}

std::string LineChannel::Escape(const std::string& field) {
  std::string out;
  out.reserve(field.size());
  for (char c : field) {
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c == '\n') {
      out += "\\n";
    } else {
      out += c;
    }
  }
  return out;
}

std::optional<std::string> LineChannel::Unescape(const std::string& field) {
  std::string out;
  out.reserve(field.size());
  for (std::size_t i = 0; i < field.size(); ++i) {
    if (field[i] != '\\') {
      out += field[i];
      continue;
    }
    if (++i == field.size()) return std::nullopt;
    switch (field[i]) {
      case '\\': out += '\\'; break;
      case 't': out += '\t'; break;
      case 'n': out += '\n'; break;
      default: return std::nullopt;
    }
  }
  return out;
}

std::string LineChannel::Join(const std::vector<std::string>& fields) {
  std::string line;
  for (std::size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) line += '\t';
    line += Escape(fields[i]);
  }
  return line;
}

std::optional<std::vector<std::string>> LineChannel::Split(const std::string& line) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (true) {
    std::size_t tab = line.find('\t', start);
    auto field = Unescape(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
    if (!field) return std::nullopt;
    fields.push_back(std::move(*field));
    if (tab == std::string::npos) return fields;
    start = tab + 1;
  }
}

bool LineChannel::WriteLine(const std::vector<std::string>& fields) {
  std::string line = Join(fields) + "\n";
  std::size_t sent = 0;
  while (sent < line.size()) {
    ssize_t n = send(fd_, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

std::optional<std::vector<std::string>> LineChannel::ReadLine(std::chrono::milliseconds timeout) {
  timedOut_ = false;
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    auto newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      std::string line = buffer_.substr(0, newline);
      buffer_.erase(0, newline + 1);
      return Split(line);
    }
    if (buffer_.size() > kMaxLine) return std::nullopt;
    // What has arrived is read even when the time is up (a time-out of zero
    // takes what is there without waiting).
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd waiting{fd_, POLLIN, 0};
    int ready = poll(&waiting, 1, static_cast<int>(std::clamp<long long>(left.count(), 0, 1 << 30)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) {
      if (std::chrono::steady_clock::now() < deadline) continue;
      timedOut_ = true;
      return std::nullopt;
    }
    if (ready < 0) return std::nullopt;
    char chunk[8192];
    ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return std::nullopt;
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

LocalServer::LocalServer(MainLoop& loop, std::string path, uid_t allowedUid, ConnectionHandler onConnection,
                         LogLine log)
    : loop_(loop),
      path_(std::move(path)),
      allowedUid_(allowedUid),
      onConnection_(std::move(onConnection)),
      log_(std::move(log)) {}

LocalServer::~LocalServer() { Stop(); }

bool LocalServer::Start(std::string& error) {
  sockaddr_un address;
  if (!FillAddress(path_, address, error)) return false;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) {
    error = ErrnoText("socket");
    return false;
  }
  unlink(path_.c_str());  // a socket left by a crashed client; the lock says none runs
  mode_t old = umask(0177);
  int bound = bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  umask(old);
  if (bound != 0 || listen(fd, 16) != 0) {
    error = ErrnoText("cannot listen on " + path_);
    close(fd);
    return false;
  }
  listenFd_ = fd;
  watch_ = loop_.AddReadWatch(listenFd_, [this] { Accept(); });
  return true;
}

void LocalServer::Stop() {
  if (listenFd_ < 0) return;
  loop_.RemoveReadWatch(watch_);
  close(listenFd_);
  listenFd_ = -1;
  unlink(path_.c_str());
}

std::optional<uid_t> LocalServer::PeerUid(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) return std::nullopt;
  return credentials.uid;
}

void LocalServer::Accept() {
  while (true) {
    int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) return;  // nothing more waiting (EAGAIN) or a peer that left at once
    auto uid = PeerUid(fd);
    if (!uid || *uid != allowedUid_) {
      if (log_) {
        log_("Local socket: a peer of uid " + (uid ? std::to_string(*uid) : std::string("unknown")) +
             " was refused");
      }
      close(fd);
      continue;
    }
    onConnection_(fd);
  }
}
