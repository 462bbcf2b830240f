// The pure parts of the listing: the path sent, server path to local path, the
// fields of an entry, the check that keeps a listed path inside its storage, and
// the rules by which the entries of a reply are used whole or not at all.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CVTextEscaping.h"
#include "Clock.h"
#include "ManagerDownload.h"
#include "TempHome.h"

namespace {

std::vector<std::string> Fields(const std::string& entry) {
  std::vector<std::string> fields;
  std::size_t start = 0;
  while (true) {
    std::size_t at = entry.find(':', start);
    fields.push_back(entry.substr(start, at == std::string::npos ? std::string::npos : at - start));
    if (at == std::string::npos) return fields;
    start = at + 1;
  }
}

// One entry as a server writes it: the path percent-encoded but for the separators.
std::string Entry(const std::string& serverPath, bool folder = false, const std::string& size = "5",
                  const std::string& modified = "1600000000") {
  std::string encoded = CVTextEscaping::URLEncodedString(serverPath);
  for (const char* separator : {"%5C", "%2F"}) {
    std::size_t at;
    while ((at = encoded.find(separator)) != std::string::npos) {
      encoded.replace(at, 3, std::string(separator) == "%5C" ? "\\" : "/");
    }
  }
  return "0:" + size + ":" + modified + ":" + (folder ? "D" : "F") + ":0:" + encoded;
}

}  // namespace

TEST(ManagerDownload, PathSentEndsWithTheStoragesSeparator) {
  struct Case {
    std::string path, type, expected;
  } cases[] = {
      {"\\\\srv\\Docs", "CIFS", "\\\\srv\\Docs\\"},
      {"\\\\srv\\Docs\\", "CIFS", "\\\\srv\\Docs\\"},  // no second separator
      {"//srv/Docs", "CIFS", "//srv/Docs\\"},          // CIFS is "\" whatever the path holds
      {"https://srv/Team", "SP", "https://srv/Team/"},
      {"https://srv/Team/", "O365", "https://srv/Team/"},
      {"s3:\\\\bucket\\a", "S3", "s3:\\\\bucket\\a\\"},  // a backslash decides for other types
      {"", "CIFS", ""},
      {"\\\\srv\\Docs", "", ""},  // the upload request flow sends no path
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ManagerDownload::ReverseSlashForCIFS(c.path, c.type), c.expected) << c.path << " " << c.type;
  }
}

TEST(ManagerDownload, ServerPathsConvertToLocalPathsBelowTheStorage) {
  TempHome home;
  const std::string docs = home.root() + "/Docs/";
  const std::string team = home.root() + "/Team/";
  struct Case {
    std::string serverPath, url, name, expected;
  } cases[] = {
      {"\\\\devserver\\Docs\\a\\b.txt", "\\\\devserver\\Docs\\", "Docs", docs + "a/b.txt"},
      // Another letter case matches; the local path keeps the server's case.
      {"\\\\DEVSERVER\\docs\\Sub\\File.TXT", "\\\\devserver\\Docs\\", "Docs", docs + "Sub/File.TXT"},
      {"\\\\SRV\\ärger\\Öl.txt", "\\\\srv\\Ärger\\", "Docs", docs + "Öl.txt"},
      {"https://devserver/Team/plan/q1.txt", "https://devserver/Team/", "Team", team + "plan/q1.txt"},
      {"HTTPS://DevServer/team/Plan", "https://devserver/Team/", "Team", team + "Plan"},
      // The location may be kept escaped for XML.
      {"\\\\srv\\R&D\\x.txt", "\\\\srv\\R&amp;D\\", "Docs", docs + "x.txt"},
      // Without its separator the location leaves a "\" that goes, a "/" stays.
      {"\\\\devserver\\Docs\\a", "\\\\devserver\\Docs", "Docs", docs + "a"},
      {"https://devserver/Team/a", "https://devserver/Team", "Team", team + "/a"},
      // Outside the location: the storage's root.
      {"\\\\other\\Docs\\a", "\\\\devserver\\Docs\\", "Docs", docs},
      {"\\\\devserver\\Docs\\a", "", "Docs", docs},
      {"\\\\srv\\My Docs\\a", "\\\\srv\\My%20Docs\\", "Docs", docs + "a"},  // a location kept encoded
      {"\\\\devserver\\Docs\\a", "\\\\devserver\\Docs\\", "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ManagerDownload::GetLocalPathForServerFullPath(c.serverPath, c.url, c.name), c.expected)
        << c.serverPath << " in " << c.url;
  }
  CVSharepoint uploads;
  uploads.Name = "Docs";
  uploads.Url = "\\\\devserver\\Docs\\";
  EXPECT_EQ(ManagerDownload::GetLocalPathForServerPathForUploadRequest("\\\\devserver\\Docs\\u\\f", uploads),
            docs + "u/f");
}

TEST(ManagerDownload, EntryPathsJoinFieldsAndDecode) {
  struct Case {
    std::string entry, expected;
  } cases[] = {
      {"0:5:1:F:0:\\\\srv\\Docs\\a.txt", "\\\\srv\\Docs\\a.txt"},
      {"0:5:1:F:0:https%3A//srv/Team/c%3Ad.txt", "https://srv/Team/c:d.txt"},
      {"0:5:1:F:0:https://srv/Team/c:d.txt", "https://srv/Team/c:d.txt"},  // ":" spans fields
      {"0:5:1:F:0:\\\\srv\\a::", "\\\\srv\\a"},                            // literal trailing ":" go
      {"0:5:1:F:0:\\\\srv\\a%3A", "\\\\srv\\a:"},                          // an encoded one stays
      {"0:5:1:F:0:\\\\srv\\100%25 %3B sure%C3%A9", "\\\\srv\\100% ; sureé"},
      {"0:5:1:F:0:\\\\srv\\bad%FF", "\\\\srv\\bad%FF"},  // no UTF-8 once decoded: kept as sent
      {"0:5:1:F:0:", ""},
      {"0:5:1:F:0", ""},  // five fields: no path
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ManagerDownload::GetFileURL_Of_FileInfoArray(Fields(c.entry)), c.expected) << c.entry;
  }
  EXPECT_EQ(ManagerDownload::DeleteDoubleDot("a:b::"), "a:b");
  EXPECT_EQ(ManagerDownload::DeleteDoubleDot(":::"), "");
  EXPECT_EQ(ManagerDownload::DeleteDoubleDot(""), "");
}

TEST(ManagerDownload, OnlyPathsStrictlyInsideTheStorageStay) {
  const std::string root = "/home/u/Corvalink/Docs/";
  struct Case {
    std::string path;
    bool stays;
  } cases[] = {
      {root + "a.txt", true},
      {root + "a/b/c", true},
      {root + "..a/b..", true},  // dots inside a name are a name
      {root + "a..", true},
      {root + "../x", false},
      {root + "a/../../x", false},
      {root + "a/..", false},
      {root + "./a", false},
      {root + "a/./b", false},
      {root + "/../x", false},
      {root, false},  // the root itself is no entry of it
      {root + "/", false},
      {"/home/u/Corvalink/Docs", false},
      {"/home/u/Corvalink/Docs2/a", false},  // a neighbour with the same prefix
      {"/etc/passwd", false},
      {"relative/a", false},
      {"", false},
      {root + std::string("a\0b", 3), false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ManagerDownload::StaysInsideStorage(c.path, root), c.stays) << c.path;
  }
  EXPECT_TRUE(ManagerDownload::StaysInsideStorage("/home/u/Corvalink/Docs/a", "/home/u/Corvalink/Docs"));
  // A root that is not a plain absolute folder holds nothing.
  EXPECT_FALSE(ManagerDownload::StaysInsideStorage("/home/u/Corvalink/../a", "/home/u/Corvalink/../"));
  EXPECT_FALSE(ManagerDownload::StaysInsideStorage("Corvalink/Docs/a", "Corvalink/Docs/"));
  EXPECT_FALSE(ManagerDownload::StaysInsideStorage("/a", ""));
}

TEST(ManagerDownload, UploadRequestPathsTakeTheLastThreeParts) {
  const std::string base = "/home/u/Corvalink/Docs/External user uploads/";
  const std::string server = "\\\\srv\\share\\UploadRequest\\guid\\sub\\f.txt";
  EXPECT_EQ(ManagerDownload::UploadRequestLocalPath(server, base), base + "guid/sub/f.txt");
  EXPECT_EQ(ManagerDownload::UploadRequestLocalPath("https://srv/UploadRequest/g/f.txt", base),
            base + "UploadRequest/g/f.txt");
  EXPECT_EQ(ManagerDownload::UploadRequestLocalPath("a\\b", base), "");
  EXPECT_EQ(ManagerDownload::UploadRequestUrl(server), "\\\\srv\\share\\UploadRequest\\");
  EXPECT_EQ(ManagerDownload::UploadRequestUrl("\\\\srv\\a\\b"), "\\\\srv\\a\\b\\");
}

class ListingEntriesTest : public ::testing::Test {
 protected:
  ManagerDownload::ListingRead Read(const std::string& reply, const std::string& name = "Docs",
                                    const std::string& url = "\\\\devserver\\Docs\\",
                                    bool uploadRequest = false) {
    site_.Name = name;
    site_.Url = url;
    return manager_.ReadListingEntries(reply, name, url, uploadRequest, site_);
  }

  TempHome home_;
  Clock clock_{0.001};
  ManagerDownload manager_{clock_};
  CVSharepoint site_;
  const std::string location_ = "\\\\devserver\\Docs\\";
};

TEST_F(ListingEntriesTest, EntriesBecomeRecordsInReplyOrder) {
  auto read = Read("0;" + Entry(location_ + "sub", true, "0", "1600000009") + ";" +
                   Entry(location_ + "sub\\Ünï 100% a;b c:d.txt", false, "300", "1600000002"));
  ASSERT_TRUE(read.usable) << read.why;
  ASSERT_EQ(read.records.size(), 2u);
  EXPECT_EQ(read.records[0].localPath, home_.root() + "/Docs/sub");
  EXPECT_TRUE(read.records[0].isFolder);
  EXPECT_EQ(read.records[0].modifiedTime, 1600000009);
  const auto& file = read.records[1];
  EXPECT_EQ(file.localPath, home_.root() + "/Docs/sub/Ünï 100% a;b c:d.txt");
  EXPECT_EQ(file.storagePath, location_ + "sub\\Ünï 100% a;b c:d.txt");
  EXPECT_EQ(file.size, 300);
  EXPECT_EQ(file.modifiedTime, 1600000002);
  EXPECT_FALSE(file.isFolder);
  EXPECT_FALSE(file.wasProcessed);
  EXPECT_EQ(file.site, "Docs");
}

// A listing is used whole or not at all: a record that is missing would look
// deleted on the server. Only a path that would leave the storage goes alone.
TEST_F(ListingEntriesTest, AnEntryThatCannotBeReadMakesTheWholeListingUnusable) {
  const std::string good = Entry(location_ + "a.txt");
  struct Case {
    std::string label, reply;
    bool usable;
    std::size_t records;
  } cases[] = {
      {"no entries", "0;", true, 0},
      {"final separator", "0;" + good + ";", true, 1},
      {"cut short", "0;" + good + ";0:5:16", false, 0},
      {"one field", "0;" + good + ";garbage", false, 0},
      {"five fields", "0;0:5:1600000000:F:0;" + good, false, 0},
      {"empty path", "0;" + good + ";0:5:1600000000:F:0:", false, 0},
      {"size not a number", "0;" + Entry(location_ + "b.txt", false, "x5") + ";" + good, false, 0},
      {"time not a number", "0;" + good + ";" + Entry(location_ + "b.txt", false, "5", ""), false, 0},
      {"outside the location", "0;" + good + ";" + Entry("\\\\elsewhere\\b.txt"), false, 0},
      {"parent escape", "0;" + Entry(location_ + "..\\..\\x") + ";" + good, true, 1},
      {"slash escape", "0;" + good + ";" + Entry(location_ + "/../x"), true, 1},
      {"dot component", "0;" + Entry(location_ + "a\\.\\b") + ";" + good, true, 1},
      {"NUL byte", "0;" + good + ";0:5:1:F:0:\\\\devserver\\Docs\\a%00b", true, 1},
      {"the location itself", "0;" + Entry(location_, true) + ";" + good, true, 1},
  };
  for (const auto& c : cases) {
    auto read = Read(c.reply);
    EXPECT_EQ(read.usable, c.usable) << c.label << ": " << read.why;
    EXPECT_EQ(read.records.size(), c.records) << c.label;
    if (!c.usable) {
      EXPECT_FALSE(read.why.empty()) << c.label;
    }
    if (c.records == 1) {
      EXPECT_EQ(read.records[0].localPath, home_.root() + "/Docs/a.txt") << c.label;
    }
  }
  EXPECT_NE(manager_.report().find("Refused a listed path that would leave the storage's folder"),
            std::string::npos);
  EXPECT_NE(manager_.report().find("\\x00"), std::string::npos);  // a NUL is shown, not written
}

TEST_F(ListingEntriesTest, UrlStoragesAndUploadRequests) {
  auto team = Read(
      "0;" + Entry("https://devserver/Team/plan/q1.txt") + ";" + Entry("https://devserver/Team/../../etc/x"),
      "Team", "https://devserver/Team/");
  ASSERT_TRUE(team.usable) << team.why;
  ASSERT_EQ(team.records.size(), 1u);
  EXPECT_EQ(team.records[0].localPath, home_.root() + "/Team/plan/q1.txt");

  const std::string base = home_.root() + "/Docs/External user uploads/";
  auto uploads = Read("0;" + Entry("\\\\srv\\s\\UploadRequest\\g1\\f.txt") + ";" +
                          Entry("\\\\srv\\s\\UploadRequest\\..\\..\\x"),
                      "g1", base, true);
  ASSERT_TRUE(uploads.usable) << uploads.why;
  ASSERT_EQ(uploads.records.size(), 1u);
  EXPECT_EQ(uploads.records[0].localPath, base + "UploadRequest/g1/f.txt");
  EXPECT_EQ(site_.Url, "\\\\srv\\s\\UploadRequest\\");  // rebuilt from the accepted entry only

  EXPECT_FALSE(Read("0;" + Entry("f.txt"), "g1", base, true).usable);  // too few parts for a local path
}
