#include "HttpTestServers.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <stdexcept>

bool Gate::Wait(std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(mutex_);
  return released_.wait_for(lock, timeout, [this] { return open_; });
}

void Gate::Release() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
  }
  released_.notify_all();
}

LoopbackServer::LoopbackServer() {
  port_ = server_.bind_to_any_port("127.0.0.1");
  if (port_ <= 0) throw std::runtime_error("cannot bind a loopback port");
  // One request per connection: a kept connection would hold up the server's stop.
  server_.set_keep_alive_max_count(1);
}

void LoopbackServer::Start() {
  thread_ = std::thread([this] { server_.listen_after_bind(); });
  // stop() only reaches a server that runs; wait for it.
  while (!server_.is_running()) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

LoopbackServer::~LoopbackServer() {
  gate_.Release();
  server_.stop();
  if (thread_.joinable()) thread_.join();
}

std::string LoopbackServer::URL(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

RawServer::RawServer(Handler handler) : handler_(std::move(handler)) {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = 0;
  socklen_t length = sizeof address;
  if (listenFd_ < 0 || ::bind(listenFd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(listenFd_, 16) != 0 ||
      ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot listen on loopback");
  }
  port_ = ntohs(address.sin_port);
  acceptThread_ = std::thread([this] { Accept(); });
}

RawServer::~RawServer() {
  stopping_ = true;
  gate_.Release();
  ::shutdown(listenFd_, SHUT_RDWR);
  if (acceptThread_.joinable()) acceptThread_.join();
  ::close(listenFd_);
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto& worker : workers_) worker.join();
}

std::string RawServer::URL(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::vector<std::string> RawServer::Requests() {
  std::lock_guard<std::mutex> lock(mutex_);
  return requests_;
}

void RawServer::Accept() {
  while (!stopping_) {
    pollfd waiting{listenFd_, POLLIN, 0};
    if (::poll(&waiting, 1, 50) <= 0) continue;
    int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    ++connections_;
    std::lock_guard<std::mutex> lock(mutex_);
    workers_.emplace_back([this, fd] { Serve(fd); });
  }
}

void RawServer::Serve(int fd) {
  std::string request;
  char buffer[65536];
  std::size_t headEnd = std::string::npos;
  std::size_t wanted = 0;
  for (;;) {
    if (headEnd != std::string::npos && request.size() >= headEnd + 4 + wanted) break;
    pollfd readable{fd, POLLIN, 0};
    if (::poll(&readable, 1, 2000) <= 0) break;
    ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
    if (got <= 0) break;
    request.append(buffer, static_cast<std::size_t>(got));
    if (headEnd == std::string::npos) {
      headEnd = request.find("\r\n\r\n");
      if (headEnd != std::string::npos) {
        std::string length = HeaderValue(request.substr(0, headEnd + 2), "Content-Length");
        wanted = length == "<missing>" ? 0 : std::stoul(length);
      }
    }
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back(request);
  }
  handler_(fd, request);
  ::shutdown(fd, SHUT_RDWR);
  ::close(fd);
}

void RawServer::Send(int fd, const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return;
    sent += static_cast<std::size_t>(n);
  }
}

std::string RawServer::HeaderValue(const std::string& request, const std::string& name) {
  std::size_t headEnd = request.find("\r\n\r\n");
  std::string head = request.substr(0, headEnd == std::string::npos ? request.size() : headEnd + 2);
  std::size_t start = head.find("\r\n");
  while (start != std::string::npos && start + 2 < head.size()) {
    std::size_t end = head.find("\r\n", start + 2);
    std::string line = head.substr(start + 2, end - start - 2);
    std::size_t colon = line.find(':');
    if (colon != std::string::npos && colon == name.size()) {
      bool same = true;
      for (std::size_t i = 0; i < colon; ++i) {
        if (std::tolower(static_cast<unsigned char>(line[i])) !=
            std::tolower(static_cast<unsigned char>(name[i]))) {
          same = false;
        }
      }
      if (same) {
        std::string value = line.substr(colon + 1);
        std::size_t first = value.find_first_not_of(' ');
        return first == std::string::npos ? "" : value.substr(first);
      }
    }
    start = end;
  }
  return "<missing>";
}
