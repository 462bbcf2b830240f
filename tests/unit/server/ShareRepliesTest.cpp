// The readers of the sharing replies on whole, partial and broken replies.

#include <gtest/gtest.h>

#include <sstream>

#include "ShareReplyParsers.h"
#include "TempHome.h"

namespace {

std::string Date(const WSDate& date) {
  if (!date) return "-";
  return std::to_string(date->time_since_epoch().count());
}

// One line per record, of the fields a reply can get wrong.
std::string Lines(const WSFilePropertyArray& reply) {
  std::ostringstream out;
  for (const auto& r : reply.GetFilePropertyCollection()) {
    out << r.file_name << "|" << r.file_size << "|" << Date(r.file_modified) << "|" << r.share_id << "|"
        << r.ownerId << "|" << r.link << "|" << Date(r.expire_at) << "|" << r.isExternal << "|" << r.isFolder
        << "|" << r.folderId << "|" << r.shareGroup << "\n";
  }
  return out.str();
}

std::string Lines(const WSUserDataArray& reply) {
  std::ostringstream out;
  for (const auto& r : reply.GetUserDataCollection()) {
    out << r.Username << "|" << r.Fullname << "|" << r.IsGroup << "|" << r.UserId << "|" << r.IsExternal << "\n";
  }
  return out.str();
}

}  // namespace

TEST(ShareReplies, WholePartialAndBrokenReplies) {
  TempHome home;
  const std::string full =
      "<FileProperty><file_name>a&amp;b.txt</file_name><file_size>9000000000</file_size>"
      "<file_modified>2020-09-13T12:26:40.500Z</file_modified><share_id>12</share_id><ownerId>3</ownerId>"
      "<owner>alice</owner><link>https://x/s?id=12</link><shared_at>2020-09-13T12:26:40.000Z</shared_at>"
      "<expire_at>2020-09-14T00:00:00.000Z</expire_at><isExternal>True</isExternal><isFolder>true</isFolder>"
      "<folderId>8</folderId><shareGroup>g-1</shareGroup></FileProperty>";
  struct Case {
    const char* label;
    std::string reply;
    std::string lines;
    bool error;
  } cases[] = {
      {"whole", "<r>" + full + "</r>",
       "a&b.txt|9000000000|1600000000500|12|3|https://x/s?id=12|1600041600000|True|1|8|g-1\n", false},
      {"empty elements and missing fields",
       "<r><FileProperty><file_name/><file_size></file_size><isFolder>True</isFolder></FileProperty></r>",
       "|0|-||0||-||0|0|\n", false},
      {"bad numbers and dates read as none",
       "<r><FileProperty><file_size>12x</file_size><file_modified>2020-09-13T12:26:40Z</file_modified>"
       "<expire_at>2020-02-30T00:00:00.000Z</expire_at></FileProperty></r>",
       "|0|-||0||-||0|0|\n", false},
      {"broken after one record", "<r>" + full + "<FileProperty><file_name>x</file_name></r>",
       "a&b.txt|9000000000|1600000000500|12|3|https://x/s?id=12|1600041600000|True|1|8|g-1\n", true},
      {"fields outside a record", "<r><file_name>x</file_name></r>", "", false},
      {"not XML", "-1;Invalid token", "", true},
      {"no reply", "", "", false},
  };
  for (const auto& c : cases) {
    WSFilePropertyArray reply(c.reply);
    EXPECT_EQ(Lines(reply), c.lines) << c.label;
    EXPECT_EQ(reply.error().has_value(), c.error) << c.label;
  }
  EXPECT_NE(home.ReadLog("CVMainLogs").find("WSFilePropertyArray - file_size -> not a number: '12x'"),
            std::string::npos);
}

TEST(ShareReplies, UsersBecomeRecipientRowsWhenTheyHaveAUserName) {
  WSUserDataArray users(
      "<r><UserData><Username>ann@x.org</Username><Fullname>Ann</Fullname><IsGroup>true</IsGroup>"
      "<UserId>4</UserId><IsExternal>false</IsExternal></UserData>"
      "<UserToShare><Username>bob@x.org</Username><IsExternal>true</IsExternal></UserToShare>"
      "<UserToShare><Fullname>More</Fullname></UserToShare></r>");
  EXPECT_EQ(Lines(users), "ann@x.org|Ann|1|4|0\nbob@x.org||0||1\n|More|0||0\n");
  auto rows = users.GetRecipientItemCollection();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].fullname, "Ann");
  EXPECT_EQ(rows[0].iconRoot, "CV_users_group");
  EXPECT_EQ(rows[0].UserId, "4");
  EXPECT_EQ(rows[1].fullname, "bob@x.org");  // no name: the address stands in
  EXPECT_EQ(rows[1].iconRoot, "CV_single_user");
  EXPECT_TRUE(rows[1].selfRec->IsExternal);
}

TEST(ShareReplies, HistoryVersionsAndUploadRequests) {
  WSUsageHistoryArray history("<r><UsageHistory><Action>Download</Action><Date>2020-09-13T12:26:40.000Z</Date>"
                              "<FileUrl>\\\\s\\a</FileUrl></UsageHistory></r>");
  ASSERT_EQ(history.GetUsageHistoryCollection().size(), 1u);
  EXPECT_EQ(history.GetUsageHistoryCollection()[0].FileURL, "\\\\s\\a");
  EXPECT_EQ(Date(history.GetUsageHistoryCollection()[0].Date), "1600000000000");

  StorageVersionInfoArray versions("<r><StorageVersionInfo><Version>2</Version><Size/></StorageVersionInfo></r>");
  ASSERT_EQ(versions.GetVersionCollection().size(), 1u);
  EXPECT_EQ(versions.GetVersionCollection()[0].Size, 0);

  // The single request's form counts as one record; texts are trimmed.
  WSUploadRequestParser single("<GetUploadRequestResult><RequestId>\n 5 </RequestId><NumberOfUpload> 3"
                               "</NumberOfUpload></GetUploadRequestResult>");
  ASSERT_EQ(single.GetFilePropertyCollection().size(), 1u);
  EXPECT_EQ(single.GetFilePropertyCollection()[0].reqID, "5");
  EXPECT_EQ(single.GetFilePropertyCollection()[0].reqNumberOfUpload, 3);
}
