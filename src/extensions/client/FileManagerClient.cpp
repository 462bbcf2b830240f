// The C face of the file manager channel over the client's own line protocol.

#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "LocalSocket.h"
#include "corvalink_fm_client.h"

struct CvFmClient {
  std::unique_ptr<LineChannel> channel;
  std::chrono::milliseconds timeout;
  std::vector<std::string> fields;  // the last answer, which the returned pointers point into
  std::vector<const char*> names;
};

namespace {

constexpr const char* kSubscribeWord = "file-manager-subscribe";

// Connects without waiting: a client whose backlog is full is as good as absent.
int ConnectNow(const char* path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!path || std::strlen(path) >= sizeof address.sun_path) return -1;
  std::strcpy(address.sun_path, path);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) return -1;
  if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    close(fd);
    return -1;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  return fd;
}

CvFmClient* Open(const char* path, int timeoutMs, const char* word) {
  int fd = ConnectNow(path);
  if (fd < 0) return nullptr;
  // A peer that stops reading must not hold a write either.
  timeval limit{timeoutMs / 1000, (timeoutMs % 1000) * 1000};
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  auto client = std::make_unique<CvFmClient>();
  client->channel = std::make_unique<LineChannel>(fd);
  client->timeout = std::chrono::milliseconds(timeoutMs);
  if (!client->channel->WriteLine({word})) return nullptr;
  if (std::strcmp(word, kSubscribeWord) == 0) {
    // Changes are told from this answer on.
    auto answer = client->channel->ReadLine(client->timeout);
    if (!answer || *answer != std::vector<std::string>{"SUBSCRIBED"}) return nullptr;
  }
  return client.release();
}

// One request and its answer, whose first field must be expect; false when the
// session broke.
bool Exchange(CvFmClient* client, const std::vector<std::string>& request, const char* expect) {
  if (!client || !client->channel->WriteLine(request)) return false;
  auto answer = client->channel->ReadLine(client->timeout);
  if (!answer || answer->empty()) {
    client->channel = std::make_unique<LineChannel>(-1);  // a late answer would be taken for the next one
    return false;
  }
  client->fields = std::move(*answer);
  return client->fields[0] == expect || client->fields[0] == "REFUSED" || client->fields[0] == "FAILED";
}

// The fields of the last answer from first on, as C strings; their number.
int Names(CvFmClient* client, std::size_t first, const char* const** names) {
  client->names.clear();
  for (std::size_t i = first; i < client->fields.size(); ++i) client->names.push_back(client->fields[i].c_str());
  if (names) *names = client->names.data();
  return static_cast<int>(client->names.size());
}

// word, an argument and paths: 1 when answered expect, 0 when refused, -1 when
// the session broke.
int PathsRequest(CvFmClient* client, const char* word, const char* argument, const char* const* paths, int count,
                 const char* expect) {
  if (!argument) return 0;
  std::vector<std::string> request{word, argument};
  for (int i = 0; i < count; ++i) request.emplace_back(paths[i]);
  if (!Exchange(client, request, expect)) return -1;
  return client->fields[0] == expect ? 1 : 0;
}

}  // namespace

extern "C" {

char* cv_fm_socket_path(void) {
  const char* home = std::getenv("HOME");
  std::string folder = home && *home ? home : "";
  if (folder.empty()) {
    if (passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) folder = entry->pw_dir;
  }
  while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
  if (folder == "/") folder.clear();
  return strdup(LocalEndpoint::SocketPath(folder + "/Corvalink/.Settings").c_str());
}

CvFmClient* cv_fm_open(const char* socket_path, int timeout_ms) { return Open(socket_path, timeout_ms, "file-manager"); }

CvFmClient* cv_fm_subscribe(const char* socket_path, int timeout_ms) {
  return Open(socket_path, timeout_ms, kSubscribeWord);
}

void cv_fm_close(CvFmClient* client) { delete client; }

int cv_fm_fd(const CvFmClient* client) { return client ? client->channel->fd() : -1; }

int cv_fm_state(CvFmClient* client, const char* path) {
  if (!path || !Exchange(client, {"STATE", path}, "STATE")) return -1;
  const auto& answer = client->fields;
  if (answer.size() != 3 || answer[1] != path) return CV_FM_STATE_NONE;
  static const char* const kWords[] = {"none", "in-step", "in-work", "failed", "folder"};
  for (int state = 0; state < 5; ++state) {
    if (answer[2] == kWords[state]) return state;
  }
  return CV_FM_STATE_NONE;
}

int cv_fm_storages(CvFmClient* client, const char** root, const char* const** names) {
  if (!Exchange(client, {"STORAGES"}, "STORAGES") || client->fields.size() < 2) return -1;
  if (root) *root = client->fields[1].c_str();
  return Names(client, 2, names);
}

int cv_fm_send_to(CvFmClient* client, const char* storage, const char* const* paths, int count) {
  return PathsRequest(client, "SEND", storage, paths, count, "SENT");
}

int cv_fm_windows(CvFmClient* client, const char* const** commands) {
  if (!Exchange(client, {"WINDOWS"}, "WINDOWS")) return -1;
  if (client->fields[0] != "WINDOWS") client->fields.resize(1);  // a client that opens none
  return Names(client, 1, commands);
}

int cv_fm_open_window(CvFmClient* client, const char* command, const char* const* paths, int count) {
  return PathsRequest(client, "OPEN", command, paths, count, "OPENED");
}

int cv_fm_read_changed(CvFmClient* client, void (*changed)(const char* path, void* data), void* data) {
  if (!client) return -1;
  while (true) {
    // What has arrived, without waiting for more.
    auto line = client->channel->ReadLine(std::chrono::milliseconds(0));
    if (!line) return client->channel->timedOut() ? 0 : -1;
    if (line->empty() || (*line)[0] != "CHANGED") continue;
    for (std::size_t i = 1; i < line->size(); ++i) {
      if (changed) changed((*line)[i].c_str(), data);
    }
  }
}

}  // extern "C"
