#pragma once
// E2ETest: corvalink-devserver and headless clients as real processes on a real
// file system, with the scaled clock. Each client has a home of its own; the
// server keeps its storage as a plain folder, so a test changes the server side
// by changing that folder.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ChildProcess.h"

class E2ETest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the server over the storage folder "Docs".
  void StartServer(const std::vector<std::string>& extra = {});
  void StopServer();
  // Makes a client home with the account and the storage Docs synced whole,
  // except the given folders (relative to the storage) left unticked.
  std::string MakeClientHome(const std::string& name, const std::vector<std::string>& unticked = {});
  // The same for another user of the server (started with --user USER:PASSWORD).
  std::string MakeClientHomeAs(const std::string& name, const std::string& user, const std::string& password);
  // timeScale: the client's clock; 1 keeps its time-outs as long as the user's.
  std::unique_ptr<ChildProcess> StartClient(const std::string& home, bool once = false,
                                            const std::string& timeScale = "0.01");
  // A home with no account at all, as a new user has.
  std::string MakeEmptyHome(const std::string& name);
  // `corvalink-sync ARGUMENTS` in the home, as a user types it, with input on its
  // standard input; waits for its end.
  struct CommandRun {
    int code = -1;
    std::string output;
  };
  CommandRun RunCommand(const std::string& home, const std::vector<std::string>& arguments,
                        const std::string& input = "");
  // The environment of a client process of that home: its Trash, desktop files
  // and local socket stay inside it, and so does its password unless the test
  // keeps the session bus (and its keyring).
  std::map<std::string, std::string> ClientEnvironment(const std::string& home) const;
  // One --once run of the client to its end; its exit code.
  int RunOnce(const std::string& home);

  std::filesystem::path ServerDocs() const { return root_ / "server" / "Docs"; }
  // Where the server keeps versions and parts of Docs.
  std::filesystem::path ServerState() const { return root_ / "server" / "Docs.devserver-state"; }
  static std::filesystem::path TrashOf(const std::string& home) {
    return std::filesystem::path(home) / ".local/share/Trash";
  }
  static std::filesystem::path ClientDocs(const std::string& home) {
    return std::filesystem::path(home) / "Corvalink" / "Docs";
  }
  static void Write(const std::filesystem::path& path, const std::string& content);
  static std::string Read(const std::filesystem::path& path);
  // A listing of a tree with every file's bytes, for byte-for-byte comparison.
  static std::map<std::string, std::string> Tree(const std::filesystem::path& folder,
                                                 const std::vector<std::string>& skip = {});
  // True when a file somewhere below folder holds exactly content.
  static bool SomeFileHolds(const std::filesystem::path& folder, const std::string& content);
  static bool WaitFor(const std::function<bool()>& condition,
                      std::chrono::milliseconds limit = std::chrono::seconds(60));
  // Waits until the client has ended a whole pass in step after this call: what
  // the sync was writing is written, and a user's change now is the user's alone.
  static bool WaitForPassInStep(ChildProcess& client);
  // Lines of the client's logs that report exceptions.
  static std::string ExceptionLog(const std::string& home);

  std::filesystem::path root_;
  std::string serverUrl_;
  bool keepSessionBus_ = false;
  std::unique_ptr<ChildProcess> server_;
};
