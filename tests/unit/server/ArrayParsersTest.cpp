// Array replies: CVFileInfo records, string arrays and the result code that stands
// in for an empty one; the shared storages; modification times; temporary names.

#include <gtest/gtest.h>

#include <string>
#include <variant>

#include "MyParser.h"
#include "SharedStorageParser.h"
#include "TempHome.h"

namespace {

std::string Envelope(const std::string& method, const std::string& inner) {
  return "<soap:Envelope xmlns:soap=\"http://schemas.xmlsoap.org/soap/envelope/\"><soap:Body><" + method +
         "Response xmlns=\"http://tempuri.org/\"><" + method + "Result>" + inner + "</" + method +
         "Result></" + method + "Response></soap:Body></soap:Envelope>";
}

std::string FileInfo(const std::string& url, const std::string& extra) {
  return "<CVFileInfo><fullName>x</fullName><fileUrl>" + url + "</fileUrl><fileName>n</fileName>" + extra +
         "<owner>o</owner><CacheTTL>5</CacheTTL></CVFileInfo>";
}

}  // namespace

TEST(MyParserArray, CVFileInfoRecordsLandInTheStoragesFolder) {
  TempHome home;
  CVSharepoint docs;
  docs.Name = "Docs";
  docs.Url = "\\\\srv\\R&amp;D\\";
  std::string reply = Envelope(
      "GetFiles3",
      FileInfo("\\\\SRV\\r&amp;d\\Sub\\A.txt",
               "<lastModificationTime>2020-09-13T12:26:40.6Z</lastModificationTime>"
               "<isDirectory>false</isDirectory><fileSize>9000000000</fileSize><isDeleted>true</isDeleted>") +
          "\n  " +
          FileInfo("\\\\srv\\R&amp;D\\Sub",
                   "<lastModificationTime>2020-09-13T12:26:40</lastModificationTime><isDirectory>true</"
                   "isDirectory>"
                   "<fileSize>0</fileSize><isDeleted>false</isDeleted>") +
          FileInfo("\\\\srv\\R&amp;D\\..\\..\\x", "<fileSize>1</fileSize>"));
  MyParser parser;
  auto items = parser.GetParsedArrayForNode("GetFiles3Result", reply, &docs);
  ASSERT_EQ(items.size(), 2u);  // the third would leave the folder
  const auto& file = std::get<CVFileForCompare>(items[0]);
  EXPECT_EQ(file.storagePath, "\\\\SRV\\r&d\\Sub\\A.txt");
  EXPECT_EQ(file.localPath, home.root() + "/Docs/Sub/A.txt");
  EXPECT_EQ(file.modifiedTime, 1600000001);  // .6 rounds up
  EXPECT_EQ(file.size, 9000000000);
  EXPECT_FALSE(file.isFolder);
  EXPECT_TRUE(file.deleted);
  EXPECT_FALSE(file.wasProcessed);
  EXPECT_EQ(file.site, "Docs");
  const auto& folder = std::get<CVFileForCompare>(items[1]);
  EXPECT_EQ(folder.localPath, home.root() + "/Docs/Sub");
  EXPECT_EQ(folder.modifiedTime, 1600000000);
  EXPECT_TRUE(folder.isFolder);
  EXPECT_FALSE(folder.deleted);
  EXPECT_NE(home.ReadLog("CVMainLogs").find("Refused a listed path"), std::string::npos);

  // Without a storage there is no local path, and the log says so.
  MyParser bare;
  auto records = bare.GetParsedArrayForNode("GetFiles3Result", reply, nullptr);
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(std::get<CVFileForCompare>(records[0]).localPath, "");
  EXPECT_NE(home.ReadLog("CVMainLogs").find("Error parse 'MyParse' localName is not correct ((nil) or '')"),
            std::string::npos);
}

TEST(MyParserArray, StringArraysAndTheCodesThatStandForAnEmptyOne) {
  TempHome home;
  struct Case {
    std::string label, inner;
    std::vector<std::string> expected;
    std::string resultCode;
  } cases[] = {
      {"hashes", "<string>q1w2==</string>\n<string>e3r4==</string>", {"q1w2==", "e3r4=="}, ""},
      {"escaped text", "<string>a&amp;b</string>", {"a&b"}, ""},
      {"one error string", "<string>-1;Invalid token</string>", {"-1;Invalid token"}, ""},
      {"empty array", "", {}, ""},
      {"restricted", "<ResultCode>-7</ResultCode>", {"-7"}, "-7"},
      {"not found", "<ResultCode>-100</ResultCode>", {"-100"}, "-100"},
      {"bad token", "<ResultCode> -1 </ResultCode>", {"-1"}, " -1 "},
      {"other codes stay out", "<ResultCode>-6</ResultCode>", {}, "-6"},
      {"success code", "<ResultCode>0</ResultCode>", {}, "0"},
      {"entries win over the code", "<ResultCode>-7</ResultCode><string>x</string>", {"x"}, "-7"},
  };
  for (const auto& c : cases) {
    MyParser parser;
    auto items = parser.GetParsedArrayForNode("GetHashesResult", Envelope("GetHashes", c.inner));
    EXPECT_EQ(MyParser::StringsOf(items), c.expected) << c.label;
    EXPECT_EQ(items.size(), c.expected.size()) << c.label;
    EXPECT_EQ(parser.ResultCode, c.resultCode) << c.label;
  }

  MyParser parser;
  std::string fault =
      "<soap:Envelope xmlns:soap=\"s\"><soap:Body><soap:Fault><faultcode>soap:Server</faultcode>"
      "<faultstring>Injected failure.</faultstring></soap:Fault></soap:Body></soap:Envelope>";
  EXPECT_TRUE(parser.GetParsedArrayForNode("GetHashesResult", fault).empty());
  EXPECT_EQ(parser.faultcode, "soap:Server");
  EXPECT_EQ(parser.faultstring, "Injected failure.");
  // A second reply on the same parser starts from nothing.
  EXPECT_TRUE(parser.GetParsedArrayForNode("GetHashesResult", "").empty());
  EXPECT_EQ(parser.faultcode, "");

  // A broken reply keeps what came before the break, and is logged.
  auto partial = parser.GetParsedArrayForNode("GetHashesResult", "<a><string>one</string><string>tw");
  EXPECT_EQ(MyParser::StringsOf(partial), std::vector<std::string>{"one"});
  EXPECT_NE(home.ReadLog("CVMainLogs")
                .find("Error:MyParser - GetParsedArrayForNode -> (MyParser XML parser "
                      "[GetHashesResult]) Error"),
            std::string::npos);
}

TEST(MyParserArray, ModificationTimesRoundTheirFraction) {
  struct Case {
    std::string text;
    std::optional<std::int64_t> seconds;
  } cases[] = {
      {"2020-09-13T12:26:40", 1600000000},
      {"2020-09-13T12:26:40Z", 1600000000},
      {"2020-09-13T12:26:40.4Z", 1600000000},
      {"2020-09-13T12:26:40.5Z", 1600000001},
      {"2020-09-13T12:26:40.999Z", 1600000001},
      {"2020-09-13T12:26:40.1234567", 1600000000},  // the last character is never read
      {"2020-09-13T12:26:40.5", 1600000000},        // ... so ".5" alone is no fraction
      {"1970-01-01T00:00:00", 0},
      {"1969-12-31T23:59:59", -1},
      {"2024-02-29T00:00:00", 1709164800},
      {"2023-02-29T00:00:00", std::nullopt},
      {"2020-13-01T00:00:00", std::nullopt},
      {"2020-09-13 12:26:40", std::nullopt},
      {"2020-09-13T24:00:00", std::nullopt},
      {"2020-09-13", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MyParser::ModificationTimeFromText(c.text), c.seconds) << c.text;
  }

  TempHome home;
  CVSharepoint docs;
  docs.Name = "Docs";
  docs.Url = "\\\\srv\\Docs\\";
  MyParser parser;
  auto items = parser.GetParsedArrayForNode(
      "x", FileInfo("\\\\srv\\Docs\\a", "<lastModificationTime>yesterday</lastModificationTime>"), &docs);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(std::get<CVFileForCompare>(items[0]).modifiedTime, 0);
  EXPECT_NE(
      home.ReadLog("CVExceptionLogs").find("Date modify for file in parse GetFiles3 == nil (yesterday)"),
      std::string::npos);
}

TEST(MyParserArray, TemporaryNamesOfDownloads) {
  struct Case {
    std::string path, expected;
  } cases[] = {
      {"/a/b/c.txt", "/a/b/.c.txt.cvtemp"},
      {"/c.txt", "/.c.txt.cvtemp"},
      {"/a/.hidden", "/a/.hidden.cvtemp"},
      {"/a/.c.txt.cvtemp", "/a/.c.txt.cvtemp"},
      {"c.txt", ""},
      {"/a/b/", ""},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(MyParser::GetFileCVTempForFileLocalPath(c.path), c.expected) << c.path;
  }
  CVFileWithAction file;
  file.nFilePath = "/a/b/c.txt";
  EXPECT_EQ(MyParser::GetFileCVTempForFileWithAction(file), "/a/b/.c.txt.cvtemp");
  file.isFolder = true;
  EXPECT_EQ(MyParser::GetFileCVTempForFileWithAction(file), "");
}

TEST(SharedStorageParser, StoragesAndCodes) {
  TempHome home;
  SharedStorageParser parser;
  auto items = parser.GetParsedArrayForNode(
      "GetSharedStoragesResult",
      Envelope("GetSharedStorages",
               "<ResultCode>0</ResultCode><SharedStorages><SharedStorage><SharedStorageId>7</SharedStorageId>"
               "<StorageName>R&amp;D</StorageName><StorageUrl>\\\\srv\\R&amp;D\\</StorageUrl>"
               "<StorageType>CIFS</StorageType><Owner>bob</Owner></SharedStorage>\n"
               "<SharedStorage><StorageName>Team</StorageName><StorageUrl>https://srv/Team/</StorageUrl>"
               "<StorageType>SP</StorageType></SharedStorage></SharedStorages>"));
  auto storages = SharedStorageParser::StoragesOf(items);
  ASSERT_EQ(storages.size(), 2u);
  EXPECT_EQ(storages[0].SharedStorageId, "7");
  EXPECT_EQ(storages[0].Name, "R&D");
  EXPECT_EQ(storages[0].Path, "\\\\srv\\R&D\\");
  EXPECT_EQ(storages[0].Type, "CIFS");
  EXPECT_EQ(storages[0].Username, "");
  EXPECT_EQ(storages[1].SharedStorageId, "");
  EXPECT_EQ(storages[1].Name, "Team");
  EXPECT_EQ(parser.ResultCode, "0");

  for (const char* code : {"-7", "-100", "-1"}) {
    auto failed = parser.GetParsedArrayForNode(
        "GetSharedStoragesResult",
        Envelope("GetSharedStorages", std::string("<ResultCode>") + code + "</ResultCode>"));
    ASSERT_EQ(failed.size(), 1u) << code;
    EXPECT_EQ(std::get<std::string>(failed[0]), code);
  }
  EXPECT_TRUE(parser.GetParsedArrayForNode("GetSharedStoragesResult", "not xml").empty());
}
