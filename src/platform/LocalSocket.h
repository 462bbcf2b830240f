#pragma once
// The local channel of the client: one Unix domain socket per user through which
// a second `corvalink-sync`, the command line and the file manager extension
// talk to the running client. Its folder is private to the user (mode 0700,
// under $XDG_RUNTIME_DIR, else the settings folder), and the server takes only
// peers of the user's own uid. An advisory lock beside it makes the client a
// single instance: whoever holds the lock owns the socket.
//
// The protocol is lines of tab-separated fields. A field escapes "\" as "\\",
// a tab as "\t" and a line break as "\n", so any path or text fits in a field.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "MainLoop.h"

class LocalEndpoint {
 public:
  // $XDG_RUNTIME_DIR/corvalink-sync, else the fallback (the settings folder);
  // made with mode 0700 and owned by the user, or "" when neither can be.
  static std::string Folder(const std::string& fallback);
  static std::string SocketPath(const std::string& fallback);
  static std::string LockPath(const std::string& fallback);
};

// The single instance lock (flock on a file in the endpoint's folder).
class InstanceLock {
 public:
  // The lock, or nothing when another process holds it (error says why when
  // the lock could not be tried at all).
  static std::unique_ptr<InstanceLock> TryAcquire(const std::string& path, std::string& error);
  ~InstanceLock();
  InstanceLock(const InstanceLock&) = delete;
  InstanceLock& operator=(const InstanceLock&) = delete;

 private:
  explicit InstanceLock(int fd) : fd_(fd) {}
  int fd_;
};

// One connected socket, read and written a line at a time.
class LineChannel {
 public:
  static constexpr std::size_t kMaxLine = 1 << 20;

  explicit LineChannel(int fd) : fd_(fd) {}
  ~LineChannel();
  LineChannel(const LineChannel&) = delete;
  LineChannel& operator=(const LineChannel&) = delete;

  // Connects to the socket at path; nothing (error filled) when nobody listens.
  static std::unique_ptr<LineChannel> Connect(const std::string& path, std::string& error);

  // False when the peer is gone.
  bool WriteLine(const std::vector<std::string>& fields);
  // The next line's fields; nothing at the end of the stream, on a line that is
  // too long or not escaped right, or when no line came within the time (with
  // a time-out of zero: what has arrived, without waiting).
  std::optional<std::vector<std::string>> ReadLine(std::chrono::milliseconds timeout);
  // True when ReadLine's last nothing was a time-out rather than the end.
  bool timedOut() const { return timedOut_; }
  int fd() const { return fd_; }

  static std::string Escape(const std::string& field);
  // Nothing for a field with a broken escape.
  static std::optional<std::string> Unescape(const std::string& field);
  static std::string Join(const std::vector<std::string>& fields);
  static std::optional<std::vector<std::string>> Split(const std::string& line);

 private:
  int fd_;
  std::string buffer_;
  bool timedOut_ = false;
};

// The listening side, on the main loop: it accepts, checks the peer's uid and
// hands the connection on. It never reads or waits on the main thread.
class LocalServer {
 public:
  // fd: the accepted connection, owned by the handler from then on.
  using ConnectionHandler = std::function<void(int fd)>;
  using LogLine = std::function<void(const std::string& line)>;

  // allowedUid: the only uid whose peers are taken (the process's own).
  LocalServer(MainLoop& loop, std::string path, uid_t allowedUid, ConnectionHandler onConnection, LogLine log);
  ~LocalServer();
  LocalServer(const LocalServer&) = delete;
  LocalServer& operator=(const LocalServer&) = delete;

  // Binds the socket (a stale one left by a crash is replaced: the caller holds
  // the instance lock) with mode 0600 and starts accepting.
  bool Start(std::string& error);
  void Stop();

  // The uid of a connected peer, from the kernel.
  static std::optional<uid_t> PeerUid(int fd);

 private:
  void Accept();

  MainLoop& loop_;
  std::string path_;
  uid_t allowedUid_;
  ConnectionHandler onConnection_;
  LogLine log_;
  int listenFd_ = -1;
  MainLoop::WatchId watch_ = 0;
};
