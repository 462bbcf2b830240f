#pragma once
// FileManagerBridge: what the file manager extensions ask of the running client
// over the local socket. A session ("file-manager") carries requests, one line
// each, answered in order:
//   STATE <path>                 -> STATE <path> in-step|in-work|failed|none
// (a folder's state is that of the files below it: failed, else in work, else in step)
//   STORAGES                     -> STORAGES <storages root> <name>...
//   SEND <storage> <path>...     -> SENT <count> | FAILED <count> | REFUSED <why>
//   WINDOWS                      -> WINDOWS <command>...  (the commands OPEN takes now)
//   OPEN <command> <path>...     -> OPENED | REFUSED <why>
// OPEN's commands are "ShareToInternal" and "ShareToExternal": the client's share
// window opens on those items of its storages, unless the policy closes that kind
// of share or the client shows no windows (--headless); and "ViewVersions": the
// version window of one file of a storage.
// A subscription ("file-manager-subscribe") is answered SUBSCRIBED once it is in
// place, and from then on only receives: every half second of
// the client's clock, the paths whose badge changed, in one line
//   CHANGED <path>...
// so that the file manager redraws those and nothing else.
//
// Sessions run on the control server's worker threads; the redraw timer runs on
// the main loop and never waits on a peer (a subscriber that cannot take a line
// at once is dropped, and connects again). Every path a peer sends is checked:
// absolute, no "." or ".." part, and for a state inside one of the account's
// storages; storage names go through the one storage name check.

#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "LocalSocket.h"
#include "MainLoop.h"

class FileManagerBridge {
 public:
  static constexpr const char* kSessionWord = "file-manager";
  static constexpr const char* kSubscribeWord = "file-manager-subscribe";

  static constexpr const char* kShareToInternal = "ShareToInternal";
  static constexpr const char* kShareToExternal = "ShareToExternal";
  static constexpr const char* kVersions = "ViewVersions";
  static constexpr const char* kNoWindows = "this client shows no windows";
  using OpenWindow = std::function<bool(const std::string& command, const std::vector<std::string>& paths)>;

  // tell: shows a message to the user (title, text), from any thread. openWindow:
  // opens a command's window without waiting for it; none in a client without windows.
  FileManagerBridge(MainLoop& loop, std::function<void(const std::string&, const std::string&)> tell,
                    OpenWindow openWindow = nullptr);
  ~FileManagerBridge();

  // Starts and stops the redraw timer (main thread).
  void Start();
  void Stop();

  // Serves a connection whose first line was the session or subscription word,
  // until the peer goes; on the caller's (worker) thread.
  void Serve(LineChannel& channel, const std::string& word);

  // The answer to one request line; public for the tests of the protocol.
  std::vector<std::string> Answer(const std::vector<std::string>& request);

  // The state word of a path as the clone tree holds it.
  static std::string StateOf(const std::string& path);
  // Why the path may not be taken from a peer, or "" when it may.
  static std::string PathProblem(const std::string& path);

 private:
  std::vector<std::string> SendTo(const std::vector<std::string>& request);
  std::vector<std::string> Windows();
  std::vector<std::string> OpenWindowFor(const std::vector<std::string>& request);
  void PushRedraws();

  MainLoop& loop_;
  std::function<void(const std::string&, const std::string&)> tell_;
  OpenWindow openWindow_;
  MainLoop::TimerId timer_ = 0;
  bool started_ = false;
  std::mutex subscribersLock_;
  std::set<LineChannel*> subscribers_;
};
