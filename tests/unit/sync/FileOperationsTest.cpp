#include <algorithm>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <sstream>

#include "AsyncFileCommonPart.h"
#include "CVIPRestriction.h"
#include "CVSelectiveSync.h"
#include "CVSelectiveSyncRule.h"
#include "FreedesktopTrash.h"
#include "HeldBackNames.h"
#include "IconOverlayInFinderStaticMethods.h"
#include "NewFilesParser.h"
#include "ServerFileOperations.h"
#include "ServerXMLParser.h"
#include "SmartSyncFileOperations.h"
#include "SyncFixture.h"

namespace fs = std::filesystem;
using ::testing::ElementsAre;

namespace {
// The server side of the per-file operations, recorded.
class FakeServerOperations : public ServerFileOperations {
 public:
  std::int32_t UploadFileToServer(CVFileWithAction& item) override { return Note("upload", item); }
  std::int32_t RenameFileOnServer(CVFileWithAction& item) override { return Note("rename", item); }
  std::int32_t CreateFolderOnServer(CVFileWithAction& item) override { return Note("mkdir", item); }
  std::int32_t DeleteFileOnServer(CVFileWithAction& item) override { return Note("delete", item); }
  std::int32_t DeleteFolderOnServer(CVFileWithAction& item) override { return Note("rmdir", item); }
  bool RecordIfServerHoldsSame(CVFileWithAction& item, const std::vector<std::string>&) override {
    return Note("same?", item) == SYNC_RETURN_OK && serverHoldsSame;
  }
  void StopCurrentAction() override {}
  Sent SendFile(CVFileWithAction& item) override { return {Note("upload", item), {}, {}}; }
  std::int32_t RecordSent(CVFileWithAction& item, const Sent&) override {
    AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
    return Note("record", item);
  }
  // Beside the loop: the same log, each call marked.
  std::shared_ptr<ServerFileOperations> Beside() override {
    if (!besideAllowed) return nullptr;
    auto other = std::make_shared<FakeServerOperations>();
    other->of = this;
    return other;
  }

  std::int32_t Note(const std::string& what, const CVFileWithAction& item) {
    if (of) return of->Note(what + " beside", item);
    std::lock_guard<std::mutex> lock(callsLock);
    calls.push_back(what + ":" + fs::path(item.nFilePath).filename().string());
    auto it = results.find(what);
    return it == results.end() ? SYNC_RETURN_OK : it->second;
  }
  std::mutex callsLock;
  std::vector<std::string> calls;
  std::map<std::string, std::int32_t> results;
  bool serverHoldsSame = false;
  bool besideAllowed = false;
  FakeServerOperations* of = nullptr;
};

// The download and the server's file info, faked.
class TestableOperations : public SmartSyncFileOperations {
 public:
  using SmartSyncFileOperations::SmartSyncFileOperations;
  bool DownloadFile(CVFileWithAction& item) override {
    downloads.push_back(item.nFilePath);
    if (!downloadContent) return false;
    std::ofstream(item.nFilePath, std::ios::binary) << *downloadContent;
    return true;
  }
  std::optional<std::vector<std::string>> GetFileInfo(const std::string&) override { return serverInfo; }
  std::string GetFileInfoReturnForPath(const std::string&) override { return serverReply; }
  std::optional<std::vector<CVFileForCompare>> ListServerFolder(SmartSync&, const std::string&, bool) override {
    return serverFolder;
  }

  std::vector<std::string> downloads;
  std::optional<std::vector<CVFileForCompare>> serverFolder;
  std::optional<std::string> downloadContent;
  std::optional<std::vector<std::string>> serverInfo;
  std::string serverReply = "0;F;1;1";
};

class RecordingTrash : public Trash {
 public:
  bool MoveToTrash(const std::string& path, std::string&) override {
    trashed.push_back(path);
    std::error_code error;
    fs::remove_all(path, error);
    return true;
  }
  std::vector<std::string> trashed;
};

std::string Read(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}
}  // namespace

class FileOperationsTest : public SyncFixture {
 protected:
  void SetUp() override {
    AddStorage("Docs");
    CVConfiguration::Instance().fSpSites[0]->Url = "\\\\devserver\\Docs\\";
    root = home.root() + "/Docs";
    fs::create_directories(root);
    // A storage starts with nothing to sync; these tests sync all of it.
    CVSelectiveSync::Instance().GetSiteRulesByName("Docs", true)->addSyncRule(CVSelectiveSyncRule::syncAll, root);
    app->CreateSyncEngine();
    sync().StopMainSyncThread();  // the tests drive the operations themselves
    sync().syncMainThreadShouldRun = true;  // as while a loop runs
    trash = std::make_shared<RecordingTrash>();
    CVStaticHelpers::SetTrash(trash);
  }
  std::string Make(const std::string& name, const std::string& content) {
    std::string path = root + "/" + name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
  }
  // A local queue entry taken by the loop, as GetNextFileForProcessing gives it.
  CVFileWithAction TakeLocal(const NFQ_File& entry) {
    AddLocal(entry);
    AsyncFileCommonPart::ChangeNewFiles(entry, entry.fileAction);
    auto item = sync().GetNextFileForProcessing();
    std::lock_guard<std::mutex> lock(sync().Sync_Lock);
    sync().fswOperationInProcess = false;
    return *item;
  }
  std::size_t LocalQueueSize() { return sync().fswQueue().FilteredCount(); }
  std::size_t NewFilesSize() { return NewFilesParser().readNewFiles().value_or(std::vector<NFQ_File>{}).size(); }
  void Record(const std::string& path, std::int64_t size) {
    CVFileWithAction item;
    item.nFilePath = path;
    item.fileSize = size;
    AsyncFileCommonPart::WriteToDownloadedFiles(item, false);
  }

  std::string root;
  FakeServerOperations serverOps;
  TestableOperations ops{*app, serverOps};
  std::shared_ptr<RecordingTrash> trash;
};

TEST_F(FileOperationsTest, LocalDeleteOfAnUntickedItemNeverReachesTheServer) {
  CVSelectiveSync::Instance().GetSiteRulesByName("Docs")->addSyncRule(CVSelectiveSyncRule::syncNone, root + "/private");
  NFQ_File entry = LocalEntry(root + "/private/a.txt", NFQ_Deleted);
  auto item = TakeLocal(entry);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  EXPECT_TRUE(serverOps.calls.empty());
  EXPECT_EQ(LocalQueueSize(), 0u);
  EXPECT_EQ(NewFilesSize(), 0u);
}

TEST_F(FileOperationsTest, LocalDeleteOfAFileThatCameBackIsVoid) {
  std::string path = Make("back.txt", "again");
  auto item = TakeLocal(LocalEntry(path, NFQ_Deleted));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_STATE_CHANGED);
  EXPECT_TRUE(serverOps.calls.empty());
  EXPECT_EQ(LocalQueueSize(), 0u);
  EXPECT_TRUE(fs::exists(path));
}

TEST_F(FileOperationsTest, UploadOfAVanishedFileEndsTheEntryAndItsLine) {
  auto item = TakeLocal(LocalEntry(root + "/gone.txt", NFQ_Created));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_STATE_CHANGED);
  EXPECT_TRUE(serverOps.calls.empty());
  EXPECT_EQ(LocalQueueSize(), 0u);
  EXPECT_EQ(NewFilesSize(), 0u);
}

TEST_F(FileOperationsTest, UploadWhoseServerCopyChangedGoesUpAsALocalCopy) {
  std::string path = Make("report.txt", "mine, edited");
  Record(path, 5);                                                   // last seen: 5 bytes
  ops.serverInfo = std::vector<std::string>{"0", "F", "9", "1700000000"};  // the server has 9 now
  auto item = TakeLocal(LocalEntry(path, NFQ_Modified));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  EXPECT_THAT(serverOps.calls, ElementsAre("same?:report.txt", "upload:report - localcopy.txt"));
  EXPECT_FALSE(fs::exists(path));
  EXPECT_EQ(Read(root + "/report - localcopy.txt"), "mine, edited");

  // The server already holds this very content: nothing is copied or sent.
  std::string sent = Make("sent.txt", "sent before a crash");
  serverOps.serverHoldsSame = true;
  auto taken = TakeLocal(LocalEntry(sent, NFQ_Created));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), taken), SYNC_RETURN_OK);
  EXPECT_EQ(serverOps.calls.back(), "same?:sent.txt");
  EXPECT_TRUE(fs::exists(sent));

  // What the server holds is what this client last saw: a plain upload.
  std::string same = Make("same.txt", "12345");
  Record(same, 5);
  ops.serverInfo = std::vector<std::string>{"0", "F", "5", "1700000000"};
  auto plain = TakeLocal(LocalEntry(same, NFQ_Modified));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), plain), SYNC_RETURN_OK);
  EXPECT_EQ(serverOps.calls.back(), "upload:same.txt");
  EXPECT_TRUE(fs::exists(same));
}

TEST_F(FileOperationsTest, ConflictDownloadKeepsTheUserContentAndNeverOverwritesACopy) {
  std::string path = Make("plan.txt", "local words");
  std::string taken = Make("plan - localcopy.txt", "an older copy");  // the first copy name is taken
  ops.downloadContent = "server words";
  CVFileWithAction item = ServerItem(path, FWA_CreateLocalCopyAndDownloadFromServer1);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  EXPECT_EQ(Read(path), "server words");
  EXPECT_EQ(Read(taken), "an older copy");
  EXPECT_EQ(Read(root + "/plan - localcopy (2).txt"), "local words");
  EXPECT_THAT(serverOps.calls, ElementsAre("upload:plan - localcopy (2).txt"));

  // The same content on both sides: the copy is dropped and nothing goes up.
  serverOps.calls.clear();
  std::string twin = Make("twin.txt", "identical");
  ops.downloadContent = "identical";
  CVFileWithAction same = ServerItem(twin, FWA_CreateLocalCopyAndDownloadFromServer2);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), same), SYNC_RETURN_OK);
  EXPECT_FALSE(fs::exists(root + "/twin - localcopy.txt"));
  EXPECT_TRUE(serverOps.calls.empty());

  // A failed download leaves the user's content under the copy's name.
  std::string lost = Make("lost.txt", "keep me");
  ops.downloadContent.reset();
  CVFileWithAction failing = ServerItem(lost, FWA_CreateLocalCopyAndDownloadFromServer1);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), failing), SYNC_RETURN_LOCKED);
  EXPECT_EQ(Read(root + "/lost - localcopy.txt"), "keep me");
}

TEST_F(FileOperationsTest, ServerDeletionsGoToTheTrashAndUntickedItemsKeepTheirRules) {
  std::string path = Make("old.txt", "x");
  Record(path, 1);
  CVFileWithAction item = ServerItem(path, FWA_DeleteLocally);
  auto site = CVSelectiveSync::Instance().GetSiteRulesByName("Docs");
  site->addSyncItem(false, path);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  EXPECT_THAT(trash->trashed, ElementsAre(path));
  EXPECT_FALSE(site->ItemFoundForPath(path));  // deleted because of the server: forgotten
  auto records = ServerXMLParser().readDownloadedFiles().value_or(std::vector<CVFileForCompare>{});
  EXPECT_TRUE(records.empty());

  // Deselected by the user: removed locally, but the item stays so it can be ticked again.
  site->addSyncRule(CVSelectiveSyncRule::syncNone, root + "/unticked");
  std::string unticked = Make("unticked/b.txt", "y");
  site->addSyncItem(false, unticked);
  CVFileWithAction deselected = ServerItem(unticked, FWA_DeleteLocally);
  EXPECT_EQ(ops.PerformDeleteLocally(sync(), deselected, site), SYNC_RETURN_OK);
  EXPECT_TRUE(site->ItemFoundForPath(unticked));
}

TEST_F(FileOperationsTest, NewFilesGoUpAheadAndAreRecordedBeforeALocalRenameOfOneOfThem) {
  serverOps.besideAllowed = true;
  ops.serverReply = "-6;File/Folder not found;";
  for (const char* name : {"a.txt", "b.txt", "c.txt"}) Make(name, "new");
  auto upload = [&](const char* name) {
    CVFileWithAction item;
    item.nFilePath = root + "/" + name;
    item.fileAction = FWA_UploadToServer;
    return item;
  };
  sync().serverQueue().SQ_ServerQueue = {upload("b.txt"), upload("c.txt")};
  CVFileWithAction first = upload("a.txt");
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), first), SYNC_RETURN_OK);

  // b.txt is renamed before the loop reaches it: what went up ahead is recorded first.
  fs::rename(root + "/b.txt", root + "/d.txt");
  NFQ_File rename = LocalEntry(root + "/d.txt", NFQ_Renamed);
  rename.oldFilePath = root + "/b.txt";
  auto renamed = TakeLocal(rename);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), renamed), SYNC_RETURN_OK);
  std::vector<std::string> calls = serverOps.calls;
  std::sort(calls.begin(), calls.begin() + 3);  // the loop's own and those beside it, at once
  EXPECT_THAT(calls, ElementsAre("upload beside:b.txt", "upload beside:c.txt", "upload:a.txt", "record:b.txt",
                                 "record:c.txt", "rename:d.txt"));
}

TEST_F(FileOperationsTest, RenamesGivenUpOrWithNoSourceAndTheirFates) {
  std::string renamed = Make("new name.txt", "content");
  NFQ_File entry = LocalEntry(renamed, NFQ_Renamed);
  entry.oldFilePath = root + "/old name.txt";
  Record(entry.oldFilePath, 7);

  // The server no longer has the source: the new path goes up instead.
  serverOps.results["rename"] = SYNC_RETURN_RENAME_SOURCE_GONE;
  auto item = TakeLocal(entry);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  EXPECT_THAT(serverOps.calls, ElementsAre("rename:new name.txt", "upload:new name.txt"));

  // No source on the server and nothing on disk: done.
  serverOps.calls.clear();
  NFQ_File vanished = LocalEntry(root + "/vanished.txt", NFQ_Renamed);
  vanished.oldFilePath = root + "/before.txt";
  Record(vanished.oldFilePath, 1);
  auto gone = TakeLocal(vanished);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), gone), SYNC_RETURN_OK);
  EXPECT_THAT(serverOps.calls, ElementsAre("rename:vanished.txt"));

  // A rename that keeps failing is given up after 3 attempts, unlike an upload,
  // and what stands at its new path is queued as a new file.
  serverOps.results["rename"] = SYNC_RETURN_FAILED;
  NFQ_File stubborn = entry;
  stubborn.attemptCount = 2;
  auto third = TakeLocal(stubborn);
  EXPECT_EQ(third.attemptsCount, 3);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), third), SYNC_RETURN_FAILED);
  std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_FQ_Lock);
  ASSERT_EQ(sync().fswQueue().FQ_FilteredQueue.size(), 1u);
  EXPECT_EQ(sync().fswQueue().FQ_FilteredQueue[0].fileAction, NFQ_Created);
  EXPECT_EQ(sync().fswQueue().FQ_FilteredQueue[0].nFilePath, renamed);
}

TEST_F(FileOperationsTest, LockedAndRestrictedResults) {
  std::string path = Make("busy.txt", "x");
  serverOps.results["upload"] = SYNC_RETURN_LOCKED;
  NFQ_File entry = LocalEntry(path, NFQ_Created);
  entry.attemptCount = 10;  // uploads have no limit
  auto item = TakeLocal(entry);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_LOCKED);
  EXPECT_EQ(LocalQueueSize(), 1u);
  EXPECT_FALSE(sync().syncedWithSomeErrors);
  {
    std::lock_guard<std::mutex> lock(sync().fswQueue().FSW_FQ_Lock);
    sync().fswQueue().FQ_FilteredQueue.clear();
    sync().fswQueueIndex = 0;
  }

  serverOps.results["upload"] = SYNC_RETURN_RESTRICTED;
  auto closed = TakeLocal(LocalEntry(path, NFQ_Created));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), closed), SYNC_RETURN_RESTRICTED);
  EXPECT_EQ(LocalQueueSize(), 0u);
  EXPECT_EQ(NewFilesSize(), 0u);
  EXPECT_FALSE(CVIPRestriction::Instance().arrayRestriction().empty());
}

TEST_F(FileOperationsTest, DownloadOfAFileTheServerNoLongerHasForgetsItsRecord) {
  std::string path = root + "/vanished-on-server.txt";
  Record(path, 3);
  ops.downloadContent.reset();
  ops.serverReply = "-6;File/Folder not found;";
  CVFileWithAction item = ServerItem(path);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), item), SYNC_RETURN_OK);
  auto records = ServerXMLParser().readDownloadedFiles().value_or(std::vector<CVFileForCompare>{});
  EXPECT_TRUE(records.empty());

  ops.serverReply = "0;F;3;1";  // still there: try again later
  Record(path, 3);
  EXPECT_EQ(ops.PerformDownloadFromServer(sync(), item), SYNC_RETURN_LOCKED);

  CVFileWithAction folder = ServerItem(root + "/new folder/inner");
  folder.isFolder = true;
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), folder), SYNC_RETURN_OK);
  EXPECT_TRUE(fs::is_directory(root + "/new folder/inner"));
}

TEST_F(FileOperationsTest, NamesTheShareCannotHoldStayHereOnceReportedAndGoUpWhenRenamed) {
  HeldBackNames& held = HeldBackNames::Instance();
  auto upload = [&](const std::string& path) {
    auto item = TakeLocal(LocalEntry(path));
    return ops.PerformNextFileOperation(sync(), item);
  };
  // A name the share refuses: no server call, a failed state, the entry done, told once.
  const std::string bad = Make("a:b.txt", "x");
  EXPECT_EQ(upload(bad), SYNC_RETURN_NAME_HELD_BACK);
  EXPECT_EQ(upload(bad), SYNC_RETURN_NAME_HELD_BACK);
  EXPECT_EQ(held.Find(bad)->suggestion, "a_b.txt");
  EXPECT_EQ(Read(IconOverlayInFinderStaticMethods::GetClonnedFilePath(bad)), "2");
  // Inside a refused folder: held with the folder.
  EXPECT_EQ(upload(Make("CON/inside.txt", "i")), SYNC_RETURN_NAME_HELD_BACK);
  EXPECT_EQ(held.Find(root + "/CON/inside.txt")->localPath, root + "/CON");
  // A second name in another case: the one the server knows keeps syncing.
  Record(Make("Report.txt", "abc"), 3);
  EXPECT_EQ(upload(Make("report.txt", "mine")), SYNC_RETURN_NAME_HELD_BACK);
  EXPECT_EQ(held.Find(root + "/report.txt")->suggestion, "report (2).txt");
  // The server holds the name in another case, which a share takes for the same.
  ops.serverInfo = std::vector<std::string>{"0", "F", "1", "1"};
  CVFileForCompare listed;
  listed.localPath = root + "/NOTES.txt";
  ops.serverFolder = std::vector<CVFileForCompare>{listed};
  EXPECT_EQ(upload(Make("notes.txt", "n")), SYNC_RETURN_NAME_HELD_BACK);
  EXPECT_TRUE(serverOps.calls.empty());
  EXPECT_EQ(LocalQueueSize(), 0u);
  EXPECT_FALSE(sync().syncedWithSomeErrors);
  Drain();
  EXPECT_EQ(status.notifications().size(), 4u);

  // Renamed by the user: it goes up under the new name, the report goes. A
  // delete of a name that never went up never reaches the server.
  ops.serverInfo.reset();
  fs::rename(bad, root + "/a_b.txt");
  NFQ_File rename = LocalEntry(root + "/a_b.txt", NFQ_Renamed);
  rename.oldFilePath = bad;
  auto renamed = TakeLocal(rename);
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), renamed), SYNC_RETURN_OK);
  fs::remove(root + "/report.txt");
  auto deleted = TakeLocal(LocalEntry(root + "/report.txt", NFQ_Deleted));
  EXPECT_EQ(ops.PerformNextFileOperation(sync(), deleted), SYNC_RETURN_OK);
  EXPECT_THAT(serverOps.calls, ElementsAre("upload:a_b.txt"));
  EXPECT_FALSE(held.Find(bad));
  EXPECT_FALSE(held.Find(root + "/report.txt"));
  EXPECT_EQ(held.All().size(), 2u);
}
