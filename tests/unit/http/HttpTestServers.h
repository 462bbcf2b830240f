#pragma once
// Servers on 127.0.0.1 for the request engine's tests: a cpp-httplib server for
// ordinary exchanges, and a raw socket server that answers with exact bytes (or
// breaks off) and records each request as it came off the wire.

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Lets a handler wait until the test lets it go (or a time-out passes).
class Gate {
 public:
  // True when released, false on the time-out.
  bool Wait(std::chrono::milliseconds timeout);
  void Release();

 private:
  std::mutex mutex_;
  std::condition_variable released_;
  bool open_ = false;
};

class LoopbackServer {
 public:
  LoopbackServer();
  ~LoopbackServer();
  LoopbackServer(const LoopbackServer&) = delete;
  LoopbackServer& operator=(const LoopbackServer&) = delete;

  // Register handlers first, then Start.
  httplib::Server& server() { return server_; }
  void Start();
  int port() const { return port_; }
  std::string URL(const std::string& path) const;
  // Released when the server goes, so that no handler holds up its stop.
  Gate& gate() { return gate_; }

 private:
  httplib::Server server_;
  Gate gate_;
  int port_ = -1;
  std::thread thread_;
};

class RawServer {
 public:
  // Called on a thread of its own per connection with the whole request (head and
  // a body of Content-Length bytes); writes what it likes to fd, which is closed
  // after it returns.
  using Handler = std::function<void(int fd, const std::string& request)>;

  explicit RawServer(Handler handler);
  ~RawServer();
  RawServer(const RawServer&) = delete;
  RawServer& operator=(const RawServer&) = delete;

  int port() const { return port_; }
  std::string URL(const std::string& path) const;
  std::vector<std::string> Requests();
  int Connections() const { return connections_; }
  Gate& gate() { return gate_; }

  static void Send(int fd, const std::string& bytes);
  // The value of a header line of a recorded request; "<missing>" when absent.
  static std::string HeaderValue(const std::string& request, const std::string& name);

 private:
  void Accept();
  void Serve(int fd);

  Handler handler_;
  Gate gate_;
  int listenFd_ = -1;
  int port_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> connections_{0};
  std::thread acceptThread_;
  std::mutex mutex_;
  std::list<std::thread> workers_;
  std::vector<std::string> requests_;
};
