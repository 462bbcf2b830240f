#include "ControlServer.h"

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "CVEventLogger.h"

using namespace std::chrono_literals;

namespace {

// The peer's terminal, over the socket.
class SocketIO : public CommandIO {
 public:
  explicit SocketIO(LineChannel& channel) : channel_(channel) {}
  void Out(const std::string& line) override { channel_.WriteLine({"OUT", line}); }
  void Err(const std::string& line) override { channel_.WriteLine({"ERR", line}); }
  bool Ask(const std::string& question) override { return Question("ASK", question); }
  bool AskPerson(const std::string& question) override { return Question("ASK-PERSON", question); }

 private:
  bool Question(const char* kind, const std::string& question) {
    if (!channel_.WriteLine({kind, question})) return false;
    // A person answers: give them time, but not for ever.
    auto answer = channel_.ReadLine(10min);
    return answer && answer->size() == 2 && (*answer)[0] == "ANSWER" && (*answer)[1] == "yes";
  }

  LineChannel& channel_;
};

}  // namespace

ControlServer::ControlServer(MainLoop& loop, CommandEnvironment environment, std::string socketPath)
    : environment_(environment),
      fileManager_(loop, environment.notify, environment.openWindow),
      server_(
          loop, std::move(socketPath), getuid(), [this](int fd) { workers_.Start([this, fd] { Serve(fd); }); },
          [](const std::string& line) { CVEventLogger::WriteMainLogMessage(line); }) {}

ControlServer::~ControlServer() {
  Stop();
  workers_.JoinAll();
}

bool ControlServer::Start(std::string& error) {
  if (!server_.Start(error)) return false;
  fileManager_.Start();
  return true;
}

void ControlServer::Stop() {
  fileManager_.Stop();
  server_.Stop();
  std::lock_guard<std::mutex> lock(openLock_);
  for (int fd : open_) shutdown(fd, SHUT_RDWR);
}

void ControlServer::Drain(MainLoop& loop) {
  Stop();
  if (workers_.Running() == 0) return;
  std::thread waiter([this, &loop] {
    workers_.JoinAll();
    loop.Quit(0);
  });
  loop.Run();
  waiter.join();
}

void ControlServer::Serve(int fd) {
  LineChannel channel(fd);
  {
    std::lock_guard<std::mutex> lock(openLock_);
    open_.insert(fd);
  }
  // Forgotten before the channel closes the descriptor, whose number may be reused.
  struct Forget {
    ControlServer* self;
    int fd;
    ~Forget() {
      std::lock_guard<std::mutex> lock(self->openLock_);
      self->open_.erase(fd);
    }
  } forget{this, fd};
  auto request = channel.ReadLine(10s);
  if (!request || request->empty()) {
    channel.WriteLine({"END", std::to_string(ClientCommands::kUsage)});
    return;
  }
  const std::string& word = (*request)[0];
  if (word == FileManagerBridge::kSessionWord || word == FileManagerBridge::kSubscribeWord) {
    fileManager_.Serve(channel, word);
    return;
  }
  SocketIO io(channel);
  int code = ClientCommands::kFailed;
  try {
    code = ClientCommands::Run(*request, environment_, io);
  } catch (const std::exception& failure) {
    CVEventLogger::LogException("ControlServer", "Serve", failure.what());
    io.Err(std::string("The command failed: ") + failure.what());
  }
  channel.WriteLine({"END", std::to_string(code)});
  if ((*request)[0] == "quit" && code == ClientCommands::kDone && environment_.quit) environment_.quit();
}
