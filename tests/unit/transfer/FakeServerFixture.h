#pragma once
// FakeServerTest: AsyncFileMethods against FakeFileService, on a clock a hundred
// times faster. The account has four storages: Docs ("CIFS", a backslash
// location), Web ("S3", a URL location), Share ("SP") and Blob ("azure"); the
// server's part size is 1 KB.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "ASIHTTPRequest.h"
#include "AsyncFileCommonPart.h"
#include "AsyncFileMethods.h"
#include "Clock.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "FakeFileService.h"
#include "RecordFiles.h"
#include "TempHome.h"

inline std::string RandomBytes(std::size_t size, unsigned seed = 7) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (auto& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
  return bytes;
}

inline void WriteLocal(const std::string& path, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

inline std::int64_t ModificationTime(const std::string& path) {
  struct stat info {};
  if (::lstat(path.c_str(), &info) != 0) return -1;
  return static_cast<std::int64_t>(info.st_mtim.tv_sec);
}

class FakeServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CVHandler::ResetForTests();
    fake_ = std::make_shared<FakeFileService>();
    ASIHTTPRequest::SetTransport(fake_);
    clock_ = std::make_shared<Clock>(0.01);
    ASIHTTPRequest::SetClock(clock_);
    CVConfiguration& config = CVConfiguration::Instance();
    config.Corvalink.Url = "http://corvalink.test/app/";
    config.Corvalink.UserName = "alice";
    config.Corvalink.Password = "secret";
    AddSite("Docs", "\\\\fake\\Docs\\", "CIFS");
    AddSite("Web", "https://fake/Web/", "S3");
    AddSite("Share", "https://fake/Share/", "SP");
    AddSite("Blob", "https://fake/Blob/", "azure");
    methods_ = std::make_unique<AsyncFileMethods>(clock_);
  }

  void TearDown() override {
    methods_.reset();
    ASIHTTPRequest::SetTransport(nullptr);
    ASIHTTPRequest::SetClock(nullptr);
    CVHandler::ResetForTests();
  }

  static void AddSite(const std::string& name, const std::string& url, const std::string& type) {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = name;
    site->Url = url;
    site->StorageType = type;
    CVConfiguration& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    config.fSpSites.push_back(site);
  }

  std::string Local(const std::string& storage, const std::string& relative) const {
    return home_.root() + "/" + storage + "/" + relative;
  }

  // A local file of the sync's queue, with its bytes on disk.
  CVFileWithAction LocalFile(const std::string& storage, const std::string& relative, const std::string& bytes) {
    CVFileWithAction item;
    item.fileAction = FWA_UploadToServer;
    item.nFilePath = Local(storage, relative);
    item.fileSize = static_cast<std::int64_t>(bytes.size());
    WriteLocal(item.nFilePath, bytes);
    return item;
  }

  TempHome home_;
  std::shared_ptr<FakeFileService> fake_;
  std::shared_ptr<Clock> clock_;
  std::unique_ptr<AsyncFileMethods> methods_;
};
