#include <unistd.h>

#include "CVFileForCompareMethods.h"
#include "CompareSupport.h"

namespace {

using M = CVFileForCompareMethods;

// "café" composed (U+00E9) and decomposed (e + U+0301).
const std::string kComposed = "caf\xC3\xA9";
const std::string kDecomposed = "cafe\xCC\x81";

struct Side {
  std::int64_t size;
  std::int64_t time;
};

struct Row {
  const char* name;
  bool folder;
  std::optional<Side> record;  // none: no record of the last sync
  bool broken;
  std::optional<Side> local;  // none: nothing on the disk
  Side server;
  std::int32_t expected;
  // Kinds where they differ from the line's.
  std::optional<bool> recordFolder{};
  std::optional<bool> localFolder{};
};

// Record at 100 bytes, time 1000; a local file that a writer of the record left
// alone has the record's time.
const Side kRec{100, 1000};

const Row kRows[] = {
    // Folders: only existence counts.
    {"FolderNeverDownloaded", true, std::nullopt, false, std::nullopt, {0, 0}, CMP_NeverDownloaded},
    {"FolderNeverDownloadedLocalExists", true, std::nullopt, false, Side{0, 0}, {0, 0}, CMP_NeverDownloaded},
    {"FolderInStep", true, Side{0, 0}, false, Side{0, 0}, {0, 0}, CMP_Same},
    {"FolderTimesNeverCount", true, Side{0, 0}, false, Side{0, 77}, {0, 55}, CMP_Same},
    {"FolderMissingLocally", true, Side{0, 0}, false, std::nullopt, {0, 0}, CMP_LocalMissing},
    // Files without a record.
    {"NoRecordNoLocal", false, std::nullopt, false, std::nullopt, {100, 1000}, CMP_NeverDownloaded},
    {"NoRecordLocalExists", false, std::nullopt, false, Side{100, 1000}, {100, 1000}, CMP_BothExistUnknown},
    // A broken download is fetched whatever the sizes.
    {"BrokenNoLocal", false, kRec, true, std::nullopt, {100, 1000}, CMP_NeverDownloaded},
    {"BrokenLocalInStep", false, kRec, true, Side{100, 1000}, {100, 1000}, CMP_NeverDownloaded},
    {"BrokenEverythingDiffers", false, kRec, true, Side{7, 9}, {300, 3000}, CMP_NeverDownloaded},
    // Missing locally: always fetched again.
    {"LocalMissingServerSizeChanged", false, kRec, false, std::nullopt, {101, 1000}, CMP_ServerChangedLocalMissing},
    {"LocalMissingServerTimeChanged", false, kRec, false, std::nullopt, {100, 1001}, CMP_ServerChangedLocalMissing},
    {"LocalMissingServerInStep", false, kRec, false, std::nullopt, {100, 1000}, CMP_LocalMissing},
    // Server size changed.
    {"ServerSizeChangedLocalUntouched", false, kRec, false, Side{100, 1000}, {200, 2000}, CMP_ServerNewer},
    {"ServerSizeChangedLocalSameSizeNewTime", false, kRec, false, Side{100, 1500}, {200, 2000}, CMP_BothChanged},
    {"ServerSizeChangedLocalSizeChanged", false, kRec, false, Side{150, 1000}, {200, 2000}, CMP_BothChanged},
    {"ServerSizeChangedLocalBothChanged", false, kRec, false, Side{150, 1500}, {200, 2000}, CMP_BothChanged},
    // Same size on the server, other time.
    {"ServerTimeChangedLocalUntouched", false, kRec, false, Side{100, 1000}, {100, 2000}, CMP_ServerNewer},
    {"ServerTimeChangedLocalSameSizeNewTime", false, kRec, false, Side{100, 1500}, {100, 2000}, CMP_BothChanged},
    {"ServerTimeChangedLocalSizeChanged", false, kRec, false, Side{150, 1000}, {100, 2000}, CMP_BothChanged},
    // Server as recorded.
    {"AllInStep", false, kRec, false, Side{100, 1000}, {100, 1000}, CMP_Same},
    {"LocalEditKeepingSize", false, kRec, false, Side{100, 1500}, {100, 1000}, CMP_LocalChanged},
    {"LocalSizeChanged", false, kRec, false, Side{150, 1000}, {100, 1000}, CMP_LocalChanged},
    {"LocalSizeAndTimeChanged", false, kRec, false, Side{150, 1500}, {100, 1000}, CMP_LocalChanged},
    // A file became a folder or the reverse: only the disk's change with the
    // server as recorded goes up; otherwise the server's item takes the name.
    {"LocalFileBecameAFolder", false, kRec, false, Side{0, 0}, {100, 1000}, CMP_LocalChanged, {}, true},
    {"LocalFileBecameAFolderServerChanged", false, kRec, false, Side{0, 0}, {200, 2000}, CMP_ServerNewer, {}, true},
    {"LocalFolderBecameAFile", true, Side{0, 0}, false, kRec, {0, 0}, CMP_LocalChanged, {}, false},
    {"ServerFileBecameAFolder", true, kRec, false, kRec, {0, 0}, CMP_ServerNewer, false, false},
    {"ServerFolderBecameAFile", false, Side{0, 0}, false, Side{0, 0}, {100, 1000}, CMP_ServerNewer, true, true},
    {"NoRecordLocalFolderServerFile", false, std::nullopt, false, Side{0, 0}, {100, 1000}, CMP_ServerNewer, {}, true},
    {"NoRecordLocalFileServerFolder", true, std::nullopt, false, kRec, {0, 0}, CMP_ServerNewer, {}, false},
    // Both sides made the same change: the record of the old kind counts for nothing.
    {"BothBecameFolders", true, kRec, false, Side{0, 0}, {0, 0}, CMP_NeverDownloaded, false},
    {"BothBecameFiles", false, Side{0, 0}, false, kRec, {100, 1000}, CMP_BothExistUnknown, true},
    {"ServerBecameAFileLocalGone", false, Side{0, 0}, false, std::nullopt, {100, 1000}, CMP_NeverDownloaded, true},
};

void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

class DecisionTable : public ::testing::TestWithParam<Row> {};

TEST_P(DecisionTable, GivesTheRowsResult) {
  const Row& row = GetParam();
  CVFileForCompare server = Line("/r/Docs/x", row.server.size, row.server.time, row.folder);
  server.size = row.server.size;
  server.modifiedTime = row.server.time;
  std::optional<CVFileForCompare> record;
  if (row.record) {
    record = Line("/r/Docs/x", row.record->size, row.record->time, row.recordFolder.value_or(row.folder));
    record->size = row.record->size;
    record->modifiedTime = row.record->time;
    record->brokeDownload = row.broken;
  }
  std::optional<CVFileForCompare> local;
  if (row.local) {
    local = Line("/r/Docs/x", row.local->size, row.local->time, row.localFolder.value_or(row.folder));
    local->size = row.local->size;
    local->modifiedTime = row.local->time;
  }
  EXPECT_EQ(M::CheckFile2(server, record ? &*record : nullptr, local), row.expected);
  if (record) {
    EXPECT_TRUE(record->wasProcessed) << "the record that matched is marked";
  }
}

INSTANTIATE_TEST_SUITE_P(EveryRow, DecisionTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

TEST(CheckFile2Actions, ResultsMapToTheirActions) {
  EXPECT_EQ(GetFWAEvent(CMP_Same), FWA_Nothing);
  EXPECT_EQ(GetFWAEvent(CMP_LocalChanged), FWA_UploadToServer);
  EXPECT_EQ(GetFWAEvent(CMP_BothExistUnknown), FWA_CreateLocalCopyAndDownloadFromServer1);
  EXPECT_EQ(GetFWAEvent(CMP_BothChanged), FWA_CreateLocalCopyAndDownloadFromServer2);
  for (std::int32_t result : {CMP_ServerNewer, CMP_LocalMissing, CMP_ServerChangedLocalMissing, CMP_NeverDownloaded}) {
    EXPECT_EQ(GetFWAEvent(result), FWA_DownloadFromServer) << result;
  }
  EXPECT_EQ(SERVER_Queues::GetFWAEvent(11), FWA_Nothing);
}

class CheckFile2OnDisk : public CompareTest {};

TEST_F(CheckFile2OnDisk, OnlyTheFirstRecordOfAPathCountsAndIsMarked) {
  WriteFile(Path("Docs/" + kDecomposed), "0123456789", 1000);
  // Two records of one name in two forms: a walk from the front meets the
  // composed one first.
  std::vector<CVFileForCompare> records = {Record("Docs/other", 1, 1), Record("Docs/" + kComposed, 10, 1000),
                                           Record("Docs/" + kDecomposed, 99, 99)};
  const CVFileForCompare server = Line(Path("Docs/" + kComposed), 10, 1000);

  std::vector<CVFileForCompare> walked = records;
  EXPECT_EQ(M::CheckFile2(server, walked), CMP_Same);
  EXPECT_FALSE(walked[0].wasProcessed);
  EXPECT_TRUE(walked[1].wasProcessed);
  EXPECT_FALSE(walked[2].wasProcessed);

  std::vector<CVFileForCompare> indexed = records;
  const M::PathIndex index(indexed);
  EXPECT_EQ(index.size(), 2u);
  auto found = index.Find(server.localPath);
  ASSERT_TRUE(found);
  EXPECT_EQ(M::CheckFile2(server, &indexed[*found], M::CreateCVFileForCompare(server.localPath)), CMP_Same);
  for (std::size_t i = 0; i < records.size(); ++i) EXPECT_EQ(indexed[i].wasProcessed, walked[i].wasProcessed) << i;
}

TEST_F(CheckFile2OnDisk, ReadsTheDiskWithoutFollowingLinks) {
  WriteFile(Path("Docs/a.txt"), "12345", 1234);
  struct timespec precise[2] = {{1234, 999999999}, {1234, 999999999}};
  ASSERT_EQ(::utimensat(AT_FDCWD, Path("Docs/a.txt").c_str(), precise, 0), 0);
  auto file = M::CreateCVFileForCompare(Path("Docs/a.txt"));
  ASSERT_TRUE(file);
  EXPECT_FALSE(file->isFolder);
  EXPECT_EQ(file->size, 5);
  EXPECT_EQ(file->modifiedTime, 1234) << "truncated to whole seconds";
  EXPECT_EQ(file->site, "Docs");
  EXPECT_FALSE(file->wasProcessed);

  std::filesystem::create_directories(Path("Docs/sub"));
  auto folder = M::CreateCVFileForCompare(Path("Docs/sub"));
  ASSERT_TRUE(folder);
  EXPECT_TRUE(folder->isFolder);
  EXPECT_EQ(folder->size, 0);
  EXPECT_EQ(folder->modifiedTime, 0);

  EXPECT_FALSE(M::CreateCVFileForCompare(Path("Docs/none.txt")));
  EXPECT_FALSE(M::CreateCVFileForCompare(""));

  // A link to a folder is not a folder here, and its target's size is not read.
  ASSERT_EQ(::symlink(Path("Docs/sub").c_str(), Path("Docs/link").c_str()), 0);
  auto link = M::CreateCVFileForCompare(Path("Docs/link"));
  ASSERT_TRUE(link);
  EXPECT_FALSE(link->isFolder);
  // A dangling link still stands where a download would go.
  ASSERT_EQ(::symlink(Path("nowhere").c_str(), Path("Docs/dangling").c_str()), 0);
  EXPECT_TRUE(M::CreateCVFileForCompare(Path("Docs/dangling")));
}

TEST_F(CheckFile2OnDisk, ComposedNameFindsADecomposedFile) {
  WriteFile(Path("Docs/" + kDecomposed), "abc", 500);
  auto found = M::CreateCVFileForCompare(Path("Docs/" + kComposed));
  ASSERT_TRUE(found);
  EXPECT_EQ(found->localPath, Path("Docs/" + kComposed)) << "keyed by the path asked for";
  EXPECT_EQ(found->size, 3);

  EXPECT_TRUE(M::IsSamePath(Path(kComposed), Path(kDecomposed)));
  EXPECT_FALSE(M::IsSamePath(Path("Cafe"), Path("cafe"))) << "case-sensitive";
  EXPECT_FALSE(M::IsSamePath(Path("Docs"), Path("Docs2")));
  const std::string notUtf8 = Path("bad\xFF");
  EXPECT_EQ(M::NormalizedPath(notUtf8), notUtf8);
}

}  // namespace
