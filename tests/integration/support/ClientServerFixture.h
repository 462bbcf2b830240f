#pragma once
// ClientServerTest: the client's engine and the local server in one process. The
// server runs on a free loopback port over a temporary folder, with the storages
// Docs (CIFS, a backslash location) and Team (SP, a URL location) and the account
// alice:secret; the client gets a temporary HOME and an account that points at
// the server, with both storages configured.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>

#include "DevServer.h"
#include "TempHome.h"

class ClientServerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  devserver::ServerOptions DefaultOptions() const;
  // Starts (again) a server over this test's storage folders.
  void StartServer(devserver::ServerOptions options);
  // The client's account: the server's URL and the given credentials.
  void ConfigureAccount(const std::string& user = "alice", const std::string& password = "secret");
  // Writes a file into a storage's folder, as a change on the server side.
  void PutServerFile(const std::string& storage, const std::string& relative, const std::string& content,
                     std::int64_t modified = 1'600'000'000);
  // Writes a policy for the server to hand out: settings editable or not, the
  // account's URL editable, and these <Storage> elements.
  static void WritePolicyFile(const std::filesystem::path& file, const std::string& storages, const char* editable);

  std::unique_ptr<TempHome> home_;
  std::filesystem::path serverRoot_;
  std::unique_ptr<devserver::DevServer> server_;
};
