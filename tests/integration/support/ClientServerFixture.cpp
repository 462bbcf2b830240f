#include "ClientServerFixture.h"

#include <cstdlib>
#include <fstream>

#include "ASIHTTPRequest.h"
#include "CVConfiguration.h"
#include "CVHandler.h"

namespace fs = std::filesystem;

void ClientServerTest::SetUp() {
  home_ = std::make_unique<TempHome>();
  serverRoot_ = fs::path(home_->path()) / "server";
  fs::create_directories(serverRoot_ / "Docs");
  fs::create_directories(serverRoot_ / "Team");
  CVHandler::ResetForTests();
  StartServer(DefaultOptions());
  ConfigureAccount();
}

void ClientServerTest::TearDown() {
  if (server_) server_->Stop();
  server_.reset();
  CVHandler::ResetForTests();
  home_.reset();
}

devserver::ServerOptions ClientServerTest::DefaultOptions() const {
  devserver::ServerOptions options;
  options.port = 0;
  options.users = {{"alice", "secret"}};
  options.storages = {{"Docs", serverRoot_ / "Docs", "CIFS", {}, std::nullopt},
                      {"Team", serverRoot_ / "Team", "SP", {}, std::nullopt}};
  return options;
}

void ClientServerTest::StartServer(devserver::ServerOptions options) {
  if (server_) server_->Stop();
  server_ = std::make_unique<devserver::DevServer>(std::move(options));
  server_->Start();
}

void ClientServerTest::ConfigureAccount(const std::string& user, const std::string& password) {
  CVConfiguration& config = CVConfiguration::Instance();
  config.Corvalink.Url = server_->BaseUrl();
  config.Corvalink.UserName = user;
  config.Corvalink.Password = password;
  std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
  config.fSpSites.clear();
  for (const char* name : {"Docs", "Team"}) {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = name;
    site->Url = server_->LocationOf(name);
    site->StorageType = std::string(name) == "Docs" ? "CIFS" : "SP";
    config.fSpSites.push_back(site);
  }
}

void ClientServerTest::PutServerFile(const std::string& storage, const std::string& relative,
                                     const std::string& content, std::int64_t modified) {
  server_->WriteFile(storage, relative, content, "alice", modified);
}

void ClientServerTest::WritePolicyFile(const std::filesystem::path& file, const std::string& storages,
                                       const char* editable) {
  std::ofstream(file) << "<P><Settings><Editable>" << editable << "</Editable></Settings>"
                      << "<Corvalink><URL edit=\"true\"/></Corvalink><Storages>" << storages << "</Storages></P>";
}
