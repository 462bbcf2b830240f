#include "RawRangeHttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>

namespace devserver {
namespace {

// A socket stream that renames "Range:" header lines to kRawRangeHeader while
// the header section of a request is read, and that can be cut off. With a TLS
// session its bytes go through it.
class ConnectionStream final : public httplib::Stream {
 public:
  ConnectionStream(int sock, SSL* ssl, int readTimeoutMs, int writeTimeoutMs)
      : sock_(sock), ssl_(ssl), readTimeoutMs_(readTimeoutMs), writeTimeoutMs_(writeTimeoutMs) {}

  // Before each request: its first bytes are a request line and headers.
  void BeginRequest() {
    inHeaders_ = true;
    line_.clear();
  }
  bool HasBuffered() const { return begin_ < end_ || !pending_.empty() || (ssl_ && SSL_pending(ssl_) > 0); }
  void Drop() { dropped_ = true; }
  bool dropped() const { return dropped_; }

  bool is_readable() const override { return HasBuffered() || Wait(POLLIN, readTimeoutMs_); }
  bool is_writable() const override { return !dropped_ && Wait(POLLOUT, writeTimeoutMs_); }

  ssize_t read(char* ptr, size_t size) override {
    if (dropped_) return -1;
    if (!pending_.empty()) {
      // A whole header line written in place of the client's.
      const size_t n = std::min(size, pending_.size());
      std::memcpy(ptr, pending_.data(), n);
      pending_.erase(0, n);
      return static_cast<ssize_t>(n);
    }
    if (begin_ == end_) {
      const auto got = Fill();
      if (got <= 0) return got;
    }
    if (inHeaders_ && line_.empty() && ReplaceRangeLine()) return read(ptr, size);
    size_t n = std::min(size, end_ - begin_);
    if (inHeaders_) {
      // Hand out at most one line, so that the next line's start is seen here.
      const void* newline = std::memchr(buffer_.data() + begin_, '\n', n);
      if (newline)
        n = static_cast<size_t>(static_cast<const char*>(newline) - (buffer_.data() + begin_)) + 1;
      line_.append(buffer_.data() + begin_, n);
      if (line_.back() == '\n') {
        if (line_ == "\n" || line_ == "\r\n") inHeaders_ = false;  // the body follows
        line_.clear();
      }
    }
    std::memcpy(ptr, buffer_.data() + begin_, n);
    begin_ += n;
    return static_cast<ssize_t>(n);
  }

  ssize_t write(const char* ptr, size_t size) override {
    if (dropped_ || !Wait(POLLOUT, writeTimeoutMs_)) return -1;
    if (ssl_) {
      const int written = SSL_write(ssl_, ptr, static_cast<int>(std::min<size_t>(size, 1 << 30)));
      return written > 0 ? written : -1;
    }
    return ::send(sock_, ptr, size, MSG_NOSIGNAL);
  }

  void get_remote_ip_and_port(std::string& ip, int& port) const override {
    Address(::getpeername, ip, port);
  }
  void get_local_ip_and_port(std::string& ip, int& port) const override {
    Address(::getsockname, ip, port);
  }
  socket_t socket() const override { return sock_; }

 private:
  bool Wait(short events, int timeoutMs) const {
    pollfd pfd{sock_, events, 0};
    int rc;
    do {
      rc = ::poll(&pfd, 1, timeoutMs);
    } while (rc < 0 && errno == EINTR);
    return rc > 0 && (pfd.revents & (events | POLLHUP | POLLERR));
  }

  // Reads more bytes behind what is buffered; the result of recv.
  ssize_t Fill() {
    if (begin_ == end_) begin_ = end_ = 0;
    if (end_ == buffer_.size() && begin_ > 0) {
      std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
      end_ -= begin_;
      begin_ = 0;
    }
    if (end_ == buffer_.size()) return -1;
    if (!(ssl_ && SSL_pending(ssl_) > 0) && !Wait(POLLIN, readTimeoutMs_)) return -1;
    ssize_t got;
    if (ssl_) {
      const int read = SSL_read(ssl_, buffer_.data() + end_, static_cast<int>(buffer_.size() - end_));
      got = read > 0 ? read : (SSL_get_error(ssl_, read) == SSL_ERROR_ZERO_RETURN ? 0 : -1);
    } else {
      do {
        got = ::recv(sock_, buffer_.data() + end_, buffer_.size() - end_, 0);
      } while (got < 0 && errno == EINTR);
    }
    if (got > 0) end_ += static_cast<size_t>(got);
    return got;
  }

  // At the start of a header line: a Range line with a value is renamed in
  // place; an empty one (which the library would drop) is replaced by a line of
  // kEmptyRangeHeader. True when the line was replaced.
  bool ReplaceRangeLine() {
    static constexpr char kRange[] = "range:";
    constexpr size_t kLength = sizeof(kRange) - 1;
    static_assert(sizeof("X-Rng") == sizeof("Range"));
    const char* newline = nullptr;
    while (!(newline = static_cast<const char*>(
                 std::memchr(buffer_.data() + begin_, '\n', end_ - begin_)))) {
      if (Fill() <= 0) return false;  // a line longer than the buffer is the library's problem
    }
    const char* line = buffer_.data() + begin_;
    if (static_cast<size_t>(newline - line) < kLength ||
        ::strncasecmp(line, kRange, kLength) != 0) {
      return false;
    }
    const char* value = line + kLength;
    while (value < newline && (*value == ' ' || *value == '\t' || *value == '\r')) ++value;
    if (value < newline) {
      std::memcpy(buffer_.data() + begin_, kRawRangeHeader, kLength - 1);
      return false;
    }
    pending_ = std::string(kEmptyRangeHeader) + ": 1\r\n";
    begin_ = static_cast<size_t>(newline - buffer_.data()) + 1;
    return true;
  }

  template <typename Getter>
  void Address(Getter getter, std::string& ip, int& port) const {
    sockaddr_storage addr{};
    socklen_t length = sizeof(addr);
    if (getter(sock_, reinterpret_cast<sockaddr*>(&addr), &length) != 0) return;
    char text[INET6_ADDRSTRLEN] = {};
    if (addr.ss_family == AF_INET) {
      const auto* in = reinterpret_cast<const sockaddr_in*>(&addr);
      ::inet_ntop(AF_INET, &in->sin_addr, text, sizeof(text));
      port = ntohs(in->sin_port);
    } else if (addr.ss_family == AF_INET6) {
      const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&addr);
      ::inet_ntop(AF_INET6, &in6->sin6_addr, text, sizeof(text));
      port = ntohs(in6->sin6_port);
    }
    ip = text;
  }

  int sock_;
  SSL* ssl_;
  int readTimeoutMs_;
  int writeTimeoutMs_;
  std::array<char, 16 * 1024> buffer_{};
  size_t begin_ = 0;
  size_t end_ = 0;
  bool inHeaders_ = true;
  std::string line_;     // the header line handed out so far
  std::string pending_;  // a replaced header line still to hand out
  bool dropped_ = false;
};

thread_local ConnectionStream* tCurrentConnection = nullptr;

int Milliseconds(time_t sec, time_t usec) { return static_cast<int>(sec * 1000 + usec / 1000); }

}  // namespace

void RawRangeHttpServer::DropCurrentConnection() {
  if (tCurrentConnection) tCurrentConnection->Drop();
}

void RawRangeHttpServer::UseTls(const std::filesystem::path& certificateChain, const std::filesystem::path& key) {
  std::unique_ptr<SSL_CTX, ContextDeleter> context(SSL_CTX_new(TLS_server_method()));
  if (!context || SSL_CTX_use_certificate_chain_file(context.get(), certificateChain.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(context.get(), key.c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_check_private_key(context.get()) != 1) {
    throw std::invalid_argument("--tls: cannot use the certificate " + certificateChain.string() + " with the key " +
                                key.string());
  }
  tls_ = std::move(context);
}

bool RawRangeHttpServer::process_and_close_socket(socket_t sock) {
  // Headers and body go out in separate writes; without this the body waits
  // for the peer's delayed acknowledgement on every kept-alive request.
  const int on = 1;
  ::setsockopt(sock, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  struct SessionDeleter {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
  };
  std::unique_ptr<SSL, SessionDeleter> ssl;
  if (tls_) {
    // A client that refuses the certificate ends the handshake; nothing is served.
    ssl.reset(SSL_new(tls_.get()));
    if (!ssl || SSL_set_fd(ssl.get(), sock) != 1 || SSL_accept(ssl.get()) != 1) {
      ::shutdown(sock, SHUT_RDWR);
      ::close(sock);
      return false;
    }
  }
  ConnectionStream stream(sock, ssl.get(), Milliseconds(read_timeout_sec_, read_timeout_usec_),
                          Milliseconds(write_timeout_sec_, write_timeout_usec_));
  // Waits for the next request of a kept-alive connection, watching for a stop.
  auto nextRequest = [&] {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(keep_alive_timeout_sec_);
    while (!stream.HasBuffered()) {
      if (svr_sock_ == INVALID_SOCKET) return false;
      pollfd pfd{sock, POLLIN, 0};
      if (::poll(&pfd, 1, 20) > 0) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
    }
    return true;
  };
  bool ok = false;
  for (size_t left = keep_alive_max_count_; left > 0 && nextRequest(); --left) {
    stream.BeginRequest();
    bool closed = false;
    tCurrentConnection = &stream;
    ok = process_request(stream, left == 1, closed, nullptr);
    tCurrentConnection = nullptr;
    if (!ok || closed || stream.dropped()) break;
  }
  if (ssl && !stream.dropped()) SSL_shutdown(ssl.get());
  ::shutdown(sock, SHUT_RDWR);
  ::close(sock);
  return ok;
}

}  // namespace devserver
