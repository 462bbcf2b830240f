// Rename, create folder and the deletes against the fake server: what each
// reply means, what is recorded, the taken target of a rename, refused tokens,
// names sent escaped once, and names that never reach the server. Also the
// token rules of the hash list, which the upload relies on.

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include "FakeServerFixture.h"
#include "MobileClientWS.h"

namespace {

bool WellFormed(const std::string& xml) {
  xmlDocPtr doc = xmlReadMemory(xml.data(), static_cast<int>(xml.size()), nullptr, nullptr,
                                XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (!doc) return false;
  xmlFreeDoc(doc);
  return true;
}

}  // namespace

class ServerFileOperationsTest : public FakeServerTest {
 protected:
  // A file the last sync recorded, on the server and on disk.
  CVFileWithAction Synced(const std::string& relative, const std::string& serverPath,
                          const std::string& storage = "Docs") {
    CVFileWithAction item = LocalFile(storage, relative, "content");
    item.dateModified = 1'600'000'000;
    fake_->PutFile(serverPath, "content");
    EXPECT_TRUE(AsyncFileCommonPart::WriteToDownloadedFiles(item, false));
    return item;
  }
};

TEST_F(ServerFileOperationsTest, ARenameSendsEachNameEscapedOnceAndMovesTheRecord) {
  // A storage that takes "<" in a name; a share refuses it.
  CVFileWithAction item = Synced("a&b <1>.txt", "https://fake/Web/a&b <1>.txt", "Web");
  item.fileAction = FWA_RenameFileOnServer;
  item.oldFilePath = item.nFilePath;
  item.nFilePath = Local("Web", "c&d 'x'.txt");

  EXPECT_EQ(methods_->RenameFileOnServer(item), 0);
  const auto calls = fake_->Calls("MoveFile");
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_TRUE(WellFormed(calls[0].envelope)) << calls[0].envelope;
  EXPECT_EQ(calls[0].envelope.find("&amp;amp;"), std::string::npos);
  EXPECT_EQ(calls[0].Parameter("CurrentFileName"), "https://fake/Web/a&b <1>.txt");
  EXPECT_EQ(calls[0].Parameter("NewFileName"), "https://fake/Web/c&d 'x'.txt");
  EXPECT_EQ(fake_->File("https://fake/Web/c&d 'x'.txt"), "content");
  EXPECT_FALSE(RecordOf(item.oldFilePath));
  EXPECT_TRUE(RecordOf(item.nFilePath));
}

TEST_F(ServerFileOperationsTest, RenameRepliesDecideTheResult) {
  std::vector<bool> told;
  methods_->SetFirstTimeSyncPerformedHandler([&](bool performed) { told.push_back(performed); });
  auto rename = [&](const std::string& from, const std::string& to) {
    CVFileWithAction item;
    item.fileAction = FWA_RenameFileOnServer;
    item.oldFilePath = Local("Docs", from);
    item.nFilePath = Local("Docs", to);
    return methods_->RenameFileOnServer(item);
  };

  // The target is taken: counted as done, and the next pass compares everything.
  CVFileWithAction taken = Synced("taken.txt", "\\\\fake\\Docs\\taken.txt");
  fake_->ReplyNext("MoveFile", "-6;Error Code - 183 Cannot create a file when that file already exists;");
  EXPECT_EQ(rename("taken.txt", "target.txt"), -61);
  EXPECT_EQ(told, std::vector<bool>{false});
  EXPECT_TRUE(RecordOf(Local("Docs", "target.txt")));

  // No source on the server: done as well, with no full comparison.
  EXPECT_EQ(rename("missing.txt", "other.txt"), -61);
  fake_->ReplyNext("MoveFile", "-100;");
  EXPECT_EQ(rename("x.txt", "y.txt"), -61);
  EXPECT_EQ(told.size(), 1u);

  // A refused token costs one more pass, never two.
  fake_->PutFile("\\\\fake\\Docs\\p.txt", "p");
  fake_->ReplyNext("MoveFile", "-1;Invalid token");
  EXPECT_EQ(rename("p.txt", "q.txt"), 0);
  const int before = fake_->Count("MoveFile");
  fake_->ReplyNext("MoveFile", "-1;Invalid token");
  fake_->ReplyNext("MoveFile", "-3;Incorrect format Token");
  EXPECT_EQ(rename("q.txt", "r.txt"), -3);
  EXPECT_EQ(fake_->Count("MoveFile") - before, 2);

  // Any other code comes back as the server gave it.
  fake_->ReplyNext("MoveFile", "-9;Disk full");
  EXPECT_EQ(rename("q.txt", "s.txt"), -9);
  fake_->ReplyNext("MoveFile", "");
  EXPECT_EQ(rename("q.txt", "t.txt"), -1000);
}

TEST_F(ServerFileOperationsTest, DeletesTakeGoneAsDoneAndRestrictedAsNot) {
  for (const char* kind : {"DeleteFile", "DeleteFolder"}) {
    SCOPED_TRACE(kind);
    const bool folder = std::string(kind) == "DeleteFolder";
    auto remove = [&](CVFileWithAction& item) {
      return folder ? methods_->DeleteFolderOnServer(item) : methods_->DeleteFileOnServer(item);
    };
    CVFileWithAction present = Synced(std::string(kind) + " a&b", std::string("\\\\fake\\Docs\\") + kind + " a&b");
    EXPECT_EQ(remove(present), 0);
    EXPECT_FALSE(fake_->File(std::string("\\\\fake\\Docs\\") + kind + " a&b"));
    EXPECT_FALSE(RecordOf(present.nFilePath));
    EXPECT_EQ(fake_->Calls(kind).back().Parameter("Path"), std::string("\\\\fake\\Docs\\") + kind + " a&b");
    EXPECT_TRUE(WellFormed(fake_->Calls(kind).back().envelope));

    // The server no longer has it: as good as deleted, the record goes.
    CVFileWithAction gone = Synced(std::string(kind) + "-gone", "\\\\fake\\Docs\\unrelated");
    EXPECT_EQ(remove(gone), 0);
    EXPECT_FALSE(RecordOf(gone.nFilePath));

    // Closed by a restriction: not done, and the record stays.
    CVFileWithAction closed = Synced(std::string(kind) + "-closed", std::string("\\\\fake\\Docs\\") + kind + "-closed");
    fake_->ReplyNext(kind, "-7;Restricted");
    EXPECT_EQ(remove(closed), -6);
    EXPECT_TRUE(RecordOf(closed.nFilePath));
  }

  // The same delete run on the request queue gives the whole reply.
  fake_->PutFile("\\\\fake\\Docs\\async", "x");
  MobileClientWS mobile;
  const std::string reply =
      mobile.DeleteFileAsync(CVHandler::Instance().CheckCVToken("Docs"), "\\\\fake\\Docs\\async");
  EXPECT_NE(reply.find("<DeleteFileResult>0;</DeleteFileResult>"), std::string::npos) << reply;
  EXPECT_FALSE(mobile.DeleteFileAsyncInProgress);
  EXPECT_FALSE(fake_->File("\\\\fake\\Docs\\async"));
}

TEST_F(ServerFileOperationsTest, AFailedCreateFolderAsksWhatStandsThere) {
  CVFileWithAction folder;
  folder.fileAction = FWA_UploadToServer;
  folder.isFolder = true;
  folder.nFilePath = Local("Web", "new & improved");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), 0);
  EXPECT_EQ(fake_->Calls("CreateFolder").back().Parameter("Path"), "https://fake/Web/new & improved");
  EXPECT_TRUE(RecordOf(folder.nFilePath));

  fake_->ReplyNext("CreateFolder", "-9;Busy");
  fake_->ReplyNext("GetFileInfo", "0;D;0;1600000000");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), 0);  // it is there

  fake_->ReplyNext("CreateFolder", "-9;Busy");
  fake_->ReplyNext("GetFileInfo", "0;F;12;1600000000");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), -9);  // a file is no folder

  fake_->ReplyNext("CreateFolder", "-9;Busy");
  fake_->ReplyNext("GetFileInfo", "");
  fake_->ReplyNext("GetFileInfo", "");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), -5);  // its state cannot be read

  fake_->ReplyNext("CreateFolder", "-1;Invalid token");
  fake_->ReplyNext("CreateFolder", "-1;Invalid token");
  EXPECT_EQ(methods_->CreateFolderOnServer(folder), -1);
}

TEST_F(ServerFileOperationsTest, NamesTheServerCannotHoldNeverLeave) {
  CVFileWithAction rename;
  rename.fileAction = FWA_RenameFileOnServer;
  rename.oldFilePath = Local("Docs", "plain.txt");
  rename.nFilePath = Local("Docs", "..\\..\\Team\\x.txt");
  EXPECT_EQ(methods_->RenameFileOnServer(rename), -1000);
  rename.oldFilePath.clear();  // without a source the storage's location would move
  rename.nFilePath = Local("Docs", "plain.txt");
  EXPECT_EQ(methods_->RenameFileOnServer(rename), -1000);

  CVFileWithAction root;
  root.isFolder = true;
  root.nFilePath = home_.root() + "/Docs";
  EXPECT_EQ(methods_->DeleteFolderOnServer(root), -1000);  // never the whole storage

  CVFileWithAction elsewhere = LocalFile("Docs2", "a.txt", "x");  // no such storage
  EXPECT_EQ(methods_->UploadFileToServer(elsewhere), -1000);
  CVFileWithAction backslash = LocalFile("Web", "a\\b.txt", "x");
  EXPECT_EQ(methods_->UploadFileToServer(backslash), -1000);

  EXPECT_EQ(fake_->Count("MoveFile") + fake_->Count("DeleteFolder"), 0);
  EXPECT_TRUE(fake_->Uploads().empty());
  EXPECT_NE(home_.ReadLog("CVMainLogs").find("holds a backslash"), std::string::npos);
}

TEST_F(ServerFileOperationsTest, HashListsTellRefusalsFromRestrictions) {
  MobileClientWS mobile;
  const std::string path = "\\\\fake\\Docs\\h.bin";
  fake_->PutFile(path, std::string(1500, 'h'));

  // A one-part answer passes unchanged unless it is a failure code.
  auto hashes = mobile.GetHashesWithServerPath(path, 2048, "Docs");
  ASSERT_TRUE(hashes);
  EXPECT_EQ(*hashes, std::vector<std::string>{FakeFileService::Base64MD5(std::string(1500, 'h'))});

  fake_->ReplyNext("GetHashes", "-1;Invalid token");
  hashes = mobile.GetHashesWithServerPath(path, 1024, "Docs");
  ASSERT_TRUE(hashes);  // a new token, a second pass
  EXPECT_EQ(hashes->size(), 2u);

  fake_->ReplyNext("GetHashes", "-7;Restricted");
  fake_->ReplyNext("GetHashes", "-7;Restricted");
  hashes = mobile.GetHashesWithServerPath(path, 1024, "Docs");
  ASSERT_TRUE(hashes);
  EXPECT_TRUE(hashes->empty());

  fake_->ReplyNext("GetHashes", "-100;");
  fake_->ReplyNext("GetHashes", "-3;");
  EXPECT_FALSE(mobile.GetHashesWithServerPath(path, 1024, "Docs"));

  // An empty list of parts still makes a well-formed finish, with an empty MD5.
  EXPECT_EQ(mobile.FinishPartialUploadWithForSite("Docs", path, 1024, {}), -1);
  const auto finish = fake_->Calls("FinishPartialUpload");
  ASSERT_EQ(finish.size(), 2u);  // the refusal gets one more call
  EXPECT_NE(finish[0].envelope.find("<MD5/>"), std::string::npos);
}
