#include "E2EFixture.h"

#include <signal.h>
#include <stdlib.h>

#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>
#include <thread>

namespace fs = std::filesystem;

void E2ETest::SetUp() {
  std::string pattern = (fs::temp_directory_path() / "cv-e2e-XXXXXX").string();
  root_ = mkdtemp(pattern.data());
  fs::create_directories(ServerDocs());
}

void E2ETest::TearDown() {
  StopServer();
  std::error_code error;
  if (!HasFailure()) fs::remove_all(root_, error);
}

void E2ETest::StartServer(const std::vector<std::string>& extra) {
  std::vector<std::string> arguments{"--listen", "127.0.0.1:0", "--user", "alice:secret",
                                     "--storage", "Docs=" + ServerDocs().string(), "--verbose"};
  arguments.insert(arguments.end(), extra.begin(), extra.end());
  server_ = std::make_unique<ChildProcess>(CORVALINK_DEVSERVER_BINARY, arguments,
                                           std::map<std::string, std::string>{});
  ASSERT_TRUE(server_->WaitForLine("listening on", std::chrono::seconds(10))) << server_->Output();
  std::smatch match;
  std::string output = server_->Output();
  ASSERT_TRUE(std::regex_search(output, match, std::regex("listening on (https?://[^ \\n]+)")));
  serverUrl_ = match[1];
}

void E2ETest::StopServer() {
  if (!server_) return;
  server_->Signal(SIGTERM);
  server_->Wait(std::chrono::seconds(10));
  server_.reset();
}

std::string E2ETest::MakeClientHome(const std::string& name, const std::vector<std::string>& unticked) {
  fs::path home = root_ / name;
  fs::path settings = home / "Corvalink" / ".Settings";
  fs::create_directories(settings);
  fs::permissions(settings, fs::perms::owner_all, fs::perm_options::replace);
  Write(settings / "Configuration.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<Configuration xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
        "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\n"
        "  <Corvalink><Url>" + serverUrl_ + "</Url><UserName>alice</UserName><Password>secret</Password>"
        "<IsFirstRun>false</IsFirstRun><SyncCV>0</SyncCV></Corvalink>\n"
        "  <SpSites><CVSharepoint><Url>\\\\devserver\\Docs\\</Url><Name>Docs</Name>"
        "<StorageType>CIFS</StorageType></CVSharepoint></SpSites>\n</Configuration>\n");
  std::string rules = "<SyncRule><ItemUrl>Docs</ItemUrl><Rule>syncAll</Rule></SyncRule>";
  for (const auto& folder : unticked) {
    rules += "<SyncRule><ItemUrl>Docs/" + folder + "</ItemUrl><Rule>syncNone</Rule></SyncRule>";
  }
  Write(settings / "SelectiveSync.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SelectiveSync><Sites><StorageRules><Name>Docs</Name>"
        "<SyncRules>" + rules + "</SyncRules><SyncItems/></StorageRules></Sites></SelectiveSync>\n");
  return home.string();
}

std::string E2ETest::MakeClientHomeAs(const std::string& name, const std::string& user, const std::string& password) {
  const std::string home = MakeClientHome(name);
  const auto configuration = fs::path(home) / "Corvalink" / ".Settings" / "Configuration.xml";
  std::string text = Read(configuration);
  const std::string alice = "<UserName>alice</UserName><Password>secret</Password>";
  text.replace(text.find(alice), alice.size(), "<UserName>" + user + "</UserName><Password>" + password + "</Password>");
  Write(configuration, text);
  return home;
}

std::unique_ptr<ChildProcess> E2ETest::StartClient(const std::string& home, bool once,
                                                   const std::string& timeScale) {
  std::vector<std::string> arguments{"--headless", "--time-scale", timeScale};
  if (once) arguments.push_back("--once");
  return std::make_unique<ChildProcess>(CORVALINK_SYNC_BINARY, arguments, ClientEnvironment(home));
}

std::map<std::string, std::string> E2ETest::ClientEnvironment(const std::string& home) const {
  fs::create_directories(fs::path(home) / "run");
  fs::permissions(fs::path(home) / "run", fs::perms::owner_all, fs::perm_options::replace);
  std::map<std::string, std::string> environment{{"HOME", home},
                                                 {"XDG_DATA_HOME", home + "/.local/share"},
                                                 {"XDG_CONFIG_HOME", home + "/.config"},
                                                 {"XDG_RUNTIME_DIR", home + "/run"}};
  if (!keepSessionBus_) environment["DBUS_SESSION_BUS_ADDRESS"] = "";
  return environment;
}

std::string E2ETest::MakeEmptyHome(const std::string& name) {
  fs::path home = root_ / name;
  fs::create_directories(home);
  return home.string();
}

E2ETest::CommandRun E2ETest::RunCommand(const std::string& home, const std::vector<std::string>& arguments,
                                        const std::string& input) {
  ChildProcess command(CORVALINK_SYNC_BINARY, arguments, ClientEnvironment(home), input);
  CommandRun run;
  run.code = command.Wait(std::chrono::seconds(60));
  run.output = command.WholeOutput(std::chrono::seconds(5));
  return run;
}

int E2ETest::RunOnce(const std::string& home) {
  auto client = StartClient(home, true);
  const int code = client->Wait(std::chrono::seconds(60));
  if (code != 0) std::cerr << "--once ended with " << code << ":\n" << client->Output();
  return code;
}

void E2ETest::Write(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

std::string E2ETest::Read(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

std::map<std::string, std::string> E2ETest::Tree(const fs::path& folder, const std::vector<std::string>& skip) {
  std::map<std::string, std::string> tree;
  std::error_code error;
  if (!fs::is_directory(folder, error)) return tree;
  for (auto it = fs::recursive_directory_iterator(folder, error); it != fs::recursive_directory_iterator();
       it.increment(error)) {
    // Lexical, not fs::relative: an entry may be gone by now (a ".cvtemp" of the
    // running client), and canonical paths need it to stand.
    std::string relative = it->path().lexically_relative(folder).string();
    bool skipped = false;
    for (const auto& prefix : skip) skipped |= relative == prefix || relative.rfind(prefix + "/", 0) == 0;
    if (skipped) continue;
    tree[relative] = it->is_directory() ? "<folder>" : Read(it->path());
  }
  return tree;
}

bool E2ETest::SomeFileHolds(const fs::path& folder, const std::string& content) {
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (it->is_regular_file() && it->file_size() == content.size() && Read(it->path()) == content) return true;
  }
  return false;
}

bool E2ETest::WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
  auto end = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

bool E2ETest::WaitForPassInStep(ChildProcess& client) {
  const int before = client.CountExactLines("Status: in step");
  return WaitFor([&] { return client.CountExactLines("Status: in step") >= before + 2; });
}

std::string E2ETest::ExceptionLog(const std::string& home) {
  std::string all;
  std::error_code error;
  fs::path folder = fs::path(home) / "Corvalink/.Settings/CVLogger/CVExceptionLogs";
  if (!fs::is_directory(folder, error)) return all;
  for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
    if (entry.is_regular_file()) all += Read(entry.path());
  }
  return all;
}
