#include <gtest/gtest.h>

#include "SyncCodes.h"

TEST(SyncCodes, ComparisonResultsMapToActionsAndAnythingElseDoesNothing) {
  const std::pair<int, int> rows[] = {
      {CMP_Same, FWA_Nothing},
      {CMP_ServerNewer, FWA_DownloadFromServer},
      {CMP_LocalChanged, FWA_UploadToServer},
      {CMP_Reserved4, FWA_DeleteLocally},
      {CMP_Reserved5, FWA_CreateAndUploadLocalCopy},
      {CMP_LocalMissing, FWA_DownloadFromServer},
      {CMP_ServerChangedLocalMissing, FWA_DownloadFromServer},
      {CMP_NeverDownloaded, FWA_DownloadFromServer},
      {CMP_BothExistUnknown, FWA_CreateLocalCopyAndDownloadFromServer1},
      {CMP_BothChanged, FWA_CreateLocalCopyAndDownloadFromServer2},
      {0, FWA_Nothing},
      {11, FWA_Nothing},
      {-4, FWA_Nothing},
  };
  for (auto [result, action] : rows) EXPECT_EQ(GetFWAEvent(result), action) << result;
}

TEST(SyncCodes, LocalChangesMapToActions) {
  EXPECT_EQ(FWAForNFQAction(NFQ_Created), FWA_UploadToServer);
  EXPECT_EQ(FWAForNFQAction(NFQ_Modified), FWA_UploadToServer);
  EXPECT_EQ(FWAForNFQAction(NFQ_Deleted), FWA_DeleteOnServer);
  EXPECT_EQ(FWAForNFQAction(NFQ_Renamed), FWA_RenameFileOnServer);
  EXPECT_STREQ(NFQActionName(7), "NFQ_None");
  EXPECT_STREQ(FWAActionName(42), "FWA_Nothing");
  EXPECT_STREQ(FWAActionName(FWA_UpdateDownloadedFiles), "FWA_UpdateDownloadedFiles");
}

TEST(SyncCodes, ReplyStringsAndHttpStatusesBecomeResultCodes) {
  EXPECT_EQ(ResultCodeFromReply("0;"), 0);
  EXPECT_EQ(ResultCodeFromReply("-6;File/Folder not found;"), -6);
  EXPECT_EQ(ResultCodeFromReply("-100;"), -100);
  EXPECT_EQ(ResultCodeFromReply("-23;strange"), -23);  // unknown codes pass through
  EXPECT_EQ(ResultCodeFromReply(""), SYNC_RETURN_FAILED);
  EXPECT_EQ(ResultCodeFromReply("errTimeout"), SYNC_RETURN_FAILED);

  EXPECT_EQ(ResultCodeFromHttpStatus(200), SYNC_RETURN_OK);
  EXPECT_EQ(ResultCodeFromHttpStatus(206), SYNC_RETURN_OK);
  EXPECT_EQ(ResultCodeFromHttpStatus(401), SYNC_RETURN_NOT_AUTHORIZED);
  EXPECT_EQ(ResultCodeFromHttpStatus(-6), SYNC_RETURN_STATE_CHANGED);
  EXPECT_EQ(ResultCodeFromHttpStatus(500), SYNC_RETURN_LOCKED);
  EXPECT_EQ(ResultCodeFromHttpStatus(404), SYNC_RETURN_LOCKED);
}
