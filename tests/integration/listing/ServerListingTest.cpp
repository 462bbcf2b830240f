// The listing against the local server: what a storage holds becomes records at
// the right local paths, and every failure of the server ends in a way that
// deletes nothing: retried, registered, or "no usable listing".

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <vector>

#include "CVConfiguration.h"
#include "CVHandler.h"
#include "CVIPRestriction.h"
#include "CVTextEscaping.h"
#include "ClientServerFixture.h"
#include "Clock.h"
#include "CorvalinkWS.h"
#include "ManagerDownload.h"
#include "SharedStorageParser.h"

using devserver::Fault;
using namespace std::chrono_literals;

namespace {

// A fast clock that remembers every pause asked of it, in the program's own time.
class RecordingClock : public Clock {
 public:
  RecordingClock() : Clock(0.0001) {}
  void Sleep(std::chrono::nanoseconds duration) const override {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      pauses_.push_back(duration);
    }
    Clock::Sleep(duration);
  }
  int Count(std::chrono::nanoseconds duration) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(std::count(pauses_.begin(), pauses_.end(), duration));
  }

 private:
  mutable std::mutex mutex_;
  mutable std::vector<std::chrono::nanoseconds> pauses_;
};

// One entry as a server writes it, for replies made up by a test.
std::string Entry(const std::string& serverPath, const std::string& size = "3") {
  std::string encoded = CVTextEscaping::URLEncodedString(serverPath);
  std::size_t at;
  while ((at = encoded.find("%5C")) != std::string::npos) encoded.replace(at, 3, "\\");
  while ((at = encoded.find("%2F")) != std::string::npos) encoded.replace(at, 3, "/");
  return "0:" + size + ":1600000000:F:0:" + encoded;
}

}  // namespace

class ServerListingTest : public ClientServerTest {
 protected:
  CVSharepoint Site(const std::string& name) { return *CVConfiguration::Instance().GetSiteByName(name); }

  // The listing as the comparison queue asks for it, or a folder of it.
  std::optional<std::vector<CVFileForCompare>> List(const std::string& name, bool recursive = true,
                                                    const std::string& below = "") {
    site_ = Site(name);
    manager_ = std::make_unique<ManagerDownload>(clock_, [this] { return stop_(); });
    return manager_->GetFileListFromServerNew(site_.Url + below, site_, recursive, false, true);
  }

  std::map<std::string, CVFileForCompare> ByLocalPath(const std::vector<CVFileForCompare>& records) {
    std::map<std::string, CVFileForCompare> map;
    for (const auto& record : records) map[record.localPath] = record;
    return map;
  }

  std::string Local(const std::string& name, const std::string& relative) {
    return home_->root() + "/" + name + "/" + relative;
  }

  RecordingClock clock_;
  std::function<bool()> stop_ = [] { return false; };
  CVSharepoint site_;
  std::unique_ptr<ManagerDownload> manager_;
};

TEST_F(ServerListingTest, RecursiveListingsMapEveryNameToItsLocalPath) {
  const std::vector<std::string> names = {
      "plain.txt",   "sub/Ünïcødé ñame.txt", "sub/100% sure.txt",     "sub/a;b.txt",
      "sub/c:d.txt", "sub/deeper/trailing:", "sub/deeper/R&D <x>.txt"};
  for (const char* storage : {"Docs", "Team"}) {
    for (std::size_t i = 0; i < names.size(); ++i) {
      PutServerFile(storage, names[i], std::string(i + 1, 'x'), 1'600'000'000 + static_cast<std::int64_t>(i));
    }
    auto list = List(storage);
    ASSERT_TRUE(list) << storage;
    EXPECT_FALSE(manager_->isSiteOffline);
    auto records = ByLocalPath(*list);
    ASSERT_EQ(records.size(), names.size() + 2) << storage;  // with the folders sub and sub/deeper
    for (std::size_t i = 0; i < names.size(); ++i) {
      auto found = records.find(Local(storage, names[i]));
      ASSERT_NE(found, records.end()) << storage << " " << names[i];
      EXPECT_EQ(found->second.size, static_cast<std::int64_t>(i + 1)) << names[i];
      EXPECT_EQ(found->second.modifiedTime, 1'600'000'000 + static_cast<std::int64_t>(i)) << names[i];
      EXPECT_FALSE(found->second.isFolder);
      EXPECT_EQ(found->second.site, storage);
      EXPECT_EQ(found->second.storagePath.rfind(site_.Url, 0), 0u) << found->second.storagePath;
    }
    EXPECT_TRUE(records[Local(storage, "sub/deeper")].isFolder);
    EXPECT_EQ(records[Local(storage, "sub/deeper")].size, 0);

    auto request = server_->LastRequest("GetFiles");
    ASSERT_TRUE(request);
    EXPECT_EQ(request->Field("IsRecursive"), "true");
    EXPECT_EQ(request->Field("Path"), site_.Url);  // the location already ends with its separator
  }
  // Each run asks the version anew, so that an upgraded server is noticed.
  EXPECT_GE(server_->CallCount("GetVersion"), 2);
}

TEST_F(ServerListingTest, OneLevelListingsOfAFolder) {
  PutServerFile("Docs", "sub/a.txt", "a");
  PutServerFile("Docs", "sub/inner/b.txt", "b");
  PutServerFile("Team", "plan/q1.txt", "q1");
  PutServerFile("Team", "plan/old/q0.txt", "q0");

  auto docs = List("Docs", false, "sub");
  ASSERT_TRUE(docs);
  auto records = ByLocalPath(*docs);
  EXPECT_EQ(records.size(), 2u);
  EXPECT_TRUE(records.count(Local("Docs", "sub/a.txt")));
  EXPECT_TRUE(records[Local("Docs", "sub/inner")].isFolder);
  EXPECT_EQ(server_->LastRequest("GetFiles")->Field("Path"), server_->LocationOf("Docs") + "sub\\");
  EXPECT_EQ(server_->LastRequest("GetFiles")->Field("IsRecursive"), "false");

  auto team = List("Team", false, "plan");
  ASSERT_TRUE(team);
  records = ByLocalPath(*team);
  EXPECT_EQ(records.size(), 2u);
  EXPECT_TRUE(records.count(Local("Team", "plan/q1.txt")));
  EXPECT_TRUE(records[Local("Team", "plan/old")].isFolder);
  EXPECT_EQ(server_->LastRequest("GetFiles")->Field("Path"), server_->LocationOf("Team") + "plan/");
}

TEST_F(ServerListingTest, AnEmptyStorageGivesNothingButIsNotOffline) {
  auto list = List("Docs");
  EXPECT_FALSE(list);
  EXPECT_FALSE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 1);
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("GETFILES RETURN 0 OR nil"), std::string::npos);
}

TEST_F(ServerListingTest, PassingServerFailuresAreRetriedAfterAPause) {
  PutServerFile("Docs", "a.txt", "a");
  const auto pause = std::chrono::duration_cast<std::chrono::nanoseconds>(5s);

  server_->FailNext("GetFiles", Fault::Result("-100;Busy"), 1);
  server_->FailNext("GetFiles", Fault::Result("-10000;Storage error"), 1);
  auto list = List("Docs");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->size(), 1u);
  EXPECT_EQ(server_->CallCount("GetFiles"), 3);
  EXPECT_EQ(clock_.Count(pause), 2);

  // Three in a row: the run gives up, and the storage is not offline.
  server_->ClearRequests();
  server_->FailNext("GetFiles", Fault::Result("-100;Busy"), 3);
  auto failed = List("Docs");
  EXPECT_FALSE(failed);
  EXPECT_FALSE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 3);
  EXPECT_EQ(clock_.Count(pause), 5);

  // Anything else is unhandled: logged and retried without a pause.
  server_->ClearRequests();
  server_->FailNext("GetFiles", Fault::Result("-42;Odd"), 1);
  server_->FailNext("GetFiles", Fault::Status(500), 1);
  ASSERT_TRUE(List("Docs"));
  EXPECT_EQ(server_->CallCount("GetFiles"), 3);
  EXPECT_EQ(clock_.Count(pause), 5);
  std::string log = home_->ReadLog("CVMainLogs");
  EXPECT_NE(log.find("ERROR: Unhandled error in ManagerDownload -> GetFileListFromServerNew: -42;Odd"),
            std::string::npos);
  EXPECT_NE(log.find("GetFileListFromServerNew -> -100;Busy"), std::string::npos);
}

TEST_F(ServerListingTest, RestrictedPathsAreRegisteredOnceWithoutRetry) {
  PutServerFile("Docs", "open/a.txt", "a");
  PutServerFile("Docs", "closed/b.txt", "b");
  server_->MarkRestricted("Docs", "closed");

  auto list = List("Docs");  // a recursive listing would have to leave the folder out
  EXPECT_FALSE(list);
  EXPECT_FALSE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 1);
  auto records = CVIPRestriction::Instance().arrayRestriction();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].FolderUrl, server_->LocationOf("Docs"));
  EXPECT_EQ(records[0].LastSyncTime, "0001-01-01 00:00:00");

  CVConfiguration::Instance().Corvalink.LastSync = 1'600'000'000;
  EXPECT_FALSE(List("Docs", false, "closed"));
  EXPECT_FALSE(List("Docs"));
  EXPECT_EQ(server_->CallCount("GetFiles"), 3);
  records = CVIPRestriction::Instance().arrayRestriction();
  ASSERT_EQ(records.size(), 2u);  // the storage once, and the folder
  EXPECT_EQ(records[0].LastSyncTime, "0001-01-01 00:00:00");
  EXPECT_EQ(records[1].FolderUrl, server_->LocationOf("Docs") + "closed\\");
  EXPECT_EQ(records[1].LastSyncTime, "2020-09-13 12:26:40");
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("IP Restriction -7;"), std::string::npos);
}

TEST_F(ServerListingTest, RefusedTokensAreDroppedAndTheListingRepeated) {
  PutServerFile("Team", "a.txt", "a");
  ASSERT_TRUE(List("Team"));
  server_->InvalidateAllTokens();  // the cached storage and main tokens no longer work
  server_->ClearRequests();
  auto list = List("Team");
  ASSERT_TRUE(list);
  EXPECT_FALSE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 2);
  EXPECT_EQ(server_->CallCount("CorvalinkMobile.asmx/Login"), 2);  // the first on the dead main token

  // A token refused three times in a row: no listing, and the storage is offline.
  server_->ClearRequests();
  server_->FailNext("GetFiles", Fault::Result("-3;Incorrect token"), 1);
  server_->FailNext("GetFiles", Fault::Result("-1;Invalid token"), 2);
  EXPECT_FALSE(List("Team"));
  EXPECT_TRUE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 3);
  EXPECT_NE(
      home_->ReadLog("CVMainLogs").find("Invalid or Incorrect token: -1;Invalid token,  for site: Team"),
      std::string::npos);

  // No token at all: no call is made.
  server_->ClearRequests();
  server_->Stop();
  EXPECT_FALSE(List("Team"));
  EXPECT_TRUE(manager_->isSiteOffline);
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("Bad Token! ''"), std::string::npos);
}

TEST_F(ServerListingTest, AHostileEntryIsDroppedAndTheRestStands) {
  const std::string docs = server_->LocationOf("Docs");
  server_->FailNext("GetFiles",
                    Fault::Result("0;" + Entry(docs + "a.txt") + ";" + Entry(docs + "..\\..\\x") + ";" +
                                  Entry(docs + "/../y") + ";" + Entry(docs + "sub\\b.txt")));
  auto list = List("Docs");
  ASSERT_TRUE(list);
  EXPECT_FALSE(manager_->isSiteOffline);
  ASSERT_EQ(list->size(), 2u);
  EXPECT_EQ((*list)[0].localPath, Local("Docs", "a.txt"));
  EXPECT_EQ((*list)[1].localPath, Local("Docs", "sub/b.txt"));
  std::string log = home_->ReadLog("CVMainLogs");
  EXPECT_NE(log.find("Refused a listed path that would leave the storage's folder: '" + docs + "..\\..\\x'"),
            std::string::npos);
  EXPECT_NE(log.find("Refused a listed path that would leave the storage's folder: '" + docs + "/../y'"),
            std::string::npos);
}

TEST_F(ServerListingTest, AMalformedOrPartialReplyGivesNoListing) {
  const std::string docs = server_->LocationOf("Docs");
  const std::string good = Entry(docs + "a.txt");
  for (const std::string& reply : {"0;" + good + ";0:3:16", "0;" + good + ";" + Entry("\\\\elsewhere\\b.txt"),
                                   "0;" + good + ";" + Entry(docs + "b.txt", "three")}) {
    server_->ClearRequests();
    server_->FailNext("GetFiles", Fault::Result(reply));
    EXPECT_FALSE(List("Docs")) << reply;
    EXPECT_TRUE(manager_->isSiteOffline) << reply;
    EXPECT_EQ(server_->CallCount("GetFiles"), 1) << reply;  // not a reply to repeat
  }
  EXPECT_NE(home_->ReadLog("CVMainLogs").find("The listing of 'Docs' is not used in this pass"),
            std::string::npos);

  // A reply cut off in the middle does not parse: retried, and the retry counts.
  PutServerFile("Docs", "a.txt", "abc");
  server_->ClearRequests();
  server_->FailNext("GetFiles", Fault::Drop(120));
  auto list = List("Docs");
  ASSERT_TRUE(list);
  EXPECT_EQ(list->size(), 1u);
  EXPECT_EQ(server_->CallCount("GetFiles"), 2);
}

TEST_F(ServerListingTest, AStopRequestEndsTheRun) {
  PutServerFile("Docs", "a.txt", "a");

  // Asked before the start: nothing happens, and the offline flag stays.
  stop_ = [] { return true; };
  site_ = Site("Docs");
  ManagerDownload early(clock_, [this] { return stop_(); });
  early.isSiteOffline = true;
  EXPECT_FALSE(early.GetFileListFromServerNew(site_.Url, site_, true, false, true));
  EXPECT_TRUE(early.isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 0);

  // Asked while the call runs: the reply is not used, and the storage is not offline.
  stop_ = [this] { return server_->CallCount("GetFiles") > 0; };
  EXPECT_FALSE(List("Docs"));
  EXPECT_FALSE(manager_->isSiteOffline);
  EXPECT_EQ(server_->CallCount("GetFiles"), 1);

  // Between attempts: no further call after a failed one.
  server_->ClearRequests();
  server_->FailNext("GetFiles", Fault::Result("-100;Busy"), 3);
  std::atomic<int> asked{0};
  stop_ = [&] { return server_->CallCount("GetFiles") > 0 && ++asked > 2; };
  EXPECT_FALSE(List("Docs"));
  EXPECT_EQ(server_->CallCount("GetFiles"), 1);

  // A listing that may not be stopped ignores the request.
  server_->ClearFaults();
  stop_ = [] { return true; };
  site_ = Site("Docs");
  ManagerDownload tree(clock_, [this] { return stop_(); });
  auto list = tree.GetFileListFromServerNew(site_.Url, site_, false, false, false);
  ASSERT_TRUE(list);
  EXPECT_EQ(list->size(), 1u);
}

TEST_F(ServerListingTest, SharedStoragesOfTheUser) {
  std::string token = CVHandler::Instance().CheckCVToken(CVHandler::kMainTokenKey);
  ASSERT_FALSE(token.empty());
  auto reply = CorvalinkWS().GetSharedStoragesWithToken(token);
  ASSERT_TRUE(reply);
  SharedStorageParser parser;
  auto storages =
      SharedStorageParser::StoragesOf(parser.GetParsedArrayForNode("GetSharedStoragesResult", *reply));
  ASSERT_EQ(storages.size(), 2u);
  EXPECT_EQ(storages[0].Name, "Docs");
  EXPECT_EQ(storages[0].Path, server_->LocationOf("Docs"));
  EXPECT_EQ(storages[0].Type, "CIFS");
  EXPECT_EQ(storages[1].Name, "Team");
  EXPECT_EQ(storages[1].Type, "SP");
  EXPECT_NE(storages[0].SharedStorageId, storages[1].SharedStorageId);

  auto request = server_->LastRequest("share.asmx/GetSharedStorages");
  ASSERT_TRUE(request);
  std::vector<std::string> options;
  for (const auto& [name, text] : request->children.at("Options")) options.push_back(name + "=" + text);
  EXPECT_EQ(options, (std::vector<std::string>{"Token=" + token, "ByRecipient=true", "Detailed=true",
                                               "CalculateFolderSize=false", "RefreshCache=true",
                                               "Path=", "NewErrorCodes=true"}));

  server_->InvalidateAllTokens();
  auto refused = parser.GetParsedArrayForNode("GetSharedStoragesResult",
                                              *CorvalinkWS().GetSharedStoragesWithToken(token));
  ASSERT_EQ(refused.size(), 1u);
  EXPECT_EQ(std::get<std::string>(refused[0]), "-1");
}
