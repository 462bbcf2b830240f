#pragma once
// ControlServer: the running client's end of the local socket. Each connection
// brings one request; a worker thread runs it through ClientCommands and sends
// the output back as lines:
//   OUT <text>      a line for standard output
//   ERR <text>      a line for standard error
//   ASK <question>  a yes-or-no question; the peer answers "ANSWER yes|no"
//   ASK-PERSON <question>  the same, that only a person answers (never --yes)
//   END <code>      the exit code; the connection ends
// A connection that opens with a file manager word is served by the
// FileManagerBridge instead, for as long as the file manager keeps it.
// The main thread only accepts; nothing it does waits on a peer.

#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "ClientCommands.h"
#include "FileManagerBridge.h"
#include "LocalSocket.h"
#include "WorkerThreads.h"

class ControlServer {
 public:
  ControlServer(MainLoop& loop, CommandEnvironment environment, std::string socketPath);
  ~ControlServer();

  bool Start(std::string& error);
  // Stops taking connections and ends the conversations that wait on a peer.
  void Stop();
  // After the main loop has ended: stops, and runs the loop again until the
  // commands in flight are through (a settings change needs the main thread to
  // restart the watcher).
  void Drain(MainLoop& loop);

 private:
  void Serve(int fd);

  CommandEnvironment environment_;
  FileManagerBridge fileManager_;
  LocalServer server_;
  std::mutex openLock_;
  std::set<int> open_;  // connections being served
  WorkerThreads workers_;
};
