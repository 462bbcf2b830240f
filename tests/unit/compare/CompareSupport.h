#pragma once
// What the comparison tests share: a temporary home with one storage whose own
// rule is syncAll, a listing the test hands in instead of the server, and
// helpers to lay files on the disk with chosen times.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "SERVER_Queues.h"
#include "ServerXMLParser.h"
#include "SyncRecords.h"
#include "TempHome.h"

// Lists what the test says; counts the calls.
class FakeListingQueues : public SERVER_Queues {
 public:
  StorageListing ListStorage(CVSharepoint& site) override {
    ++listings;
    listedSite = site.Name;
    return listing;
  }

  StorageListing listing;
  int listings = 0;
  std::string listedSite;
};

inline CVFileForCompare Line(const std::string& path, std::int64_t size, std::int64_t time, bool folder = false) {
  CVFileForCompare line;
  line.localPath = path;
  line.size = folder ? 0 : size;
  line.modifiedTime = folder ? 0 : time;
  line.isFolder = folder;
  return line;
}

inline void SetTime(const std::string& path, std::int64_t seconds) {
  struct timespec times[2];
  times[0].tv_sec = seconds;
  times[0].tv_nsec = 0;
  times[1] = times[0];
  ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
}

inline void WriteFile(const std::string& path, const std::string& content, std::int64_t time) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
  }
  SetTime(path, time);
}

class CompareTest : public ::testing::Test {
 protected:
  CompareTest() {
    AddStorage("Docs");
    SetOwnRule("Docs", CVSelectiveSyncRule::syncAll);
  }

  std::string Root() const { return home.root(); }
  std::string Path(const std::string& relative) const { return home.root() + "/" + relative; }

  static void AddStorage(const std::string& name) {
    auto site = std::make_shared<CVSharepoint>();
    site->Name = name;
    site->Url = "%5C%5Cdevserver%5C" + name + "%5C";
    auto& config = CVConfiguration::Instance();
    std::lock_guard<std::recursive_mutex> lock(config.fSpSitesLock);
    config.fSpSites.push_back(site);
  }
  // A new storage keeps nothing until its own rule says syncAll.
  void SetOwnRule(const std::string& name, std::int32_t rule) {
    auto site = CVSelectiveSync::Instance().GetSiteRulesByName(name, true);
    site->addSyncRule(rule, Path(name));
  }
  // A record of the last sync in step with a file of the given size and time.
  CVFileForCompare Record(const std::string& relative, std::int64_t size, std::int64_t time,
                          bool folder = false) const {
    CVFileForCompare record = Line(Path(relative), size, time, folder);
    record.site = ServerXMLParser::SiteForLocalPath(record.localPath);
    return record;
  }
  static void SaveRecords(const std::vector<CVFileForCompare>& records) {
    ASSERT_TRUE(ServerXMLParser::saveDownloadedXML(records));
  }
  std::string MainLog() const { return home.ReadLog("CVMainLogs"); }

  TempHome home;
};
