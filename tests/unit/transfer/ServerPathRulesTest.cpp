// The rules of the server operations that need no server: server paths, names
// the server cannot hold, reply and status tables, and the part arithmetic.

#include <gtest/gtest.h>

#include "AsyncFileMethods.h"
#include "AsyncFileUploader.h"
#include "CVStaticHelpers.h"
#include "MobileClientWS.h"
#include "TempHome.h"

namespace {

CVSharepoint Site(const std::string& name, const std::string& url, const std::string& type) {
  CVSharepoint site;
  site.Name = name;
  site.Url = url;
  site.StorageType = type;
  return site;
}

}  // namespace

TEST(ServerPathRules, ServerPathsFollowTheStoragesSeparator) {
  TempHome home;
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  struct Case {
    CVSharepoint site;
    std::string local;
    std::string server;
  };
  const Case cases[] = {
      // CIFS: backslashes only, whatever the local path holds.
      {Site("Docs", "\\\\devserver\\Docs\\", "CIFS"), root + "/Docs/a/b/c.txt", "\\\\devserver\\Docs\\a\\b\\c.txt"},
      {Site("Docs", "\\\\devserver\\Docs", "CIFS"), root + "/Docs/c.txt", "\\\\devserver\\Docs\\c.txt"},
      // A URL location keeps "/" and gets exactly one between base and rest.
      {Site("Web", "https://devserver/Web/", "S3"), root + "/Web/a/c.txt", "https://devserver/Web/a/c.txt"},
      {Site("Web", "https://devserver/Web", "S3"), root + "/Web/a/c.txt", "https://devserver/Web/a/c.txt"},
      // The location is kept percent-encoded; the server wants it decoded.
      {Site("Web", "https://devserver/My%20Web/", "SP"), root + "/Web/x y.txt", "https://devserver/My Web/x y.txt"},
      // Another type with a backslash location takes the backslash.
      {Site("Nas", "\\\\nas\\share", "SMB"), root + "/Nas/d/e", "\\\\nas\\share\\d\\e"},
      // The storage's own folder is its location.
      {Site("Docs", "\\\\devserver\\Docs\\", "CIFS"), root + "/Docs", "\\\\devserver\\Docs\\"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.local);
    EXPECT_EQ(AsyncFileMethods::generateServerPath(c.local, c.site), c.server);
  }
}

TEST(ServerPathRules, NamesTheServerWouldReadOtherwiseAreRefused) {
  TempHome home;
  const std::string root = CVStaticHelpers::GenerateRootPathForStorages();
  const CVSharepoint docs = Site("Docs", "\\\\devserver\\Docs\\", "CIFS");
  const CVSharepoint web = Site("Web", "https://devserver/Web/", "S3");
  EXPECT_EQ(AsyncFileMethods::NameProblemForServer(root + "/Docs/a b&c;'%.txt", docs), "");
  EXPECT_EQ(AsyncFileMethods::NameProblemForServer(root + "/Docs/sub/\xC3\xA9t\xC3\xA9.txt", docs), "");
  const std::string refused[] = {
      root + "/Docs",                   // the storage itself: a delete would empty it
      root + "/Docs/",                  //
      root + "/Docs2/a.txt",            // another storage that only begins alike
      root + "/Docs/a\\..\\..\\x.txt",  // a backslash becomes a separator on the server
      root + "/Docs/../Team/x.txt",     //
      root + "/Docs/a/./b",             //
      root + "/Docs/a//b",              //
      "/etc/passwd",                    //
  };
  for (const auto& path : refused) {
    EXPECT_NE(AsyncFileMethods::NameProblemForServer(path, docs), "") << path;
  }
  // A backslash is a separator for URL storages too: "\" turns into "/".
  EXPECT_NE(AsyncFileMethods::NameProblemForServer(root + "/Web/a\\b.txt", web), "");
}

TEST(ServerPathRules, RepliesAndStatusesBecomeResultCodes) {
  const std::pair<std::string, std::int32_t> replies[] = {
      {"", -1000},      {"0;", 0},           {"0;F;12;1600000000", 0}, {"-1;Invalid token", -1},
      {"-3;", -3},      {"-6;", -6},         {"-61;", -61},            {"-7;Restricted", -7},
      {"-100;", -100},  {"42", 42},          {"errNon200 status code: (500)", -1000},
      {";x", -1000},    {"abc;", -1000},
  };
  for (const auto& [reply, code] : replies) {
    EXPECT_EQ(AsyncFileMethods::CheckResponseString(reply), code) << reply;
  }
  const std::pair<int, std::int32_t> statuses[] = {{200, 0},  {201, 0},  {299, 0},  {401, -1}, {-6, -6},
                                                   {404, -5}, {500, -5}, {300, -5}, {0, -5},   {15, -5}};
  for (const auto& [status, code] : statuses) {
    EXPECT_EQ(AsyncFileMethods::CheckResponseCode(status), code) << status;
  }
}

TEST(ServerPathRules, PartsAreCountedExactlyAndChosenByStorage) {
  const std::int64_t MiB = 1 << 20;
  EXPECT_EQ(AsyncFileMethods::PartCount(MiB, MiB), 1);
  EXPECT_EQ(AsyncFileMethods::PartCount(MiB + 1, MiB), 2);
  EXPECT_EQ(AsyncFileMethods::PartCount(5 * MiB / 2, MiB), 3);
  // Past what a float holds exactly, one byte more is still one part more.
  const std::int64_t huge = (std::int64_t{1} << 40) * 3;
  EXPECT_EQ(AsyncFileMethods::PartCount(huge, MiB), huge / MiB);
  EXPECT_EQ(AsyncFileMethods::PartCount(huge + 1, MiB), huge / MiB + 1);

  EXPECT_TRUE(AsyncFileMethods::PartialUploadPossible(2, "CIFS"));
  EXPECT_TRUE(AsyncFileMethods::PartialUploadPossible(4, "azure"));
  EXPECT_FALSE(AsyncFileMethods::PartialUploadPossible(1, "CIFS"));
  EXPECT_FALSE(AsyncFileMethods::PartialUploadPossible(4, "Sp"));
  EXPECT_FALSE(AsyncFileMethods::PartialUploadPossible(4, "O365"));
  EXPECT_EQ(AsyncFileMethods::PartSizeKbFor("Azure", 1024), 4096);
  EXPECT_EQ(AsyncFileMethods::PartSizeKbFor("CIFS", 1024), 1024);
}

TEST(ServerPathRules, HashesAndUploadAddressesAreEncodedForTheWire) {
  EXPECT_EQ(AsyncFileMethods::GetMD5ForData("abc"), "900150983cd24fb0d6963f7d28e17f72");
  EXPECT_EQ(MobileClientWS::MD5Fragment({"a+b/c==", "x&y"}), "<string>a+b/c==</string><string>x&amp;y</string>");
  EXPECT_EQ(MobileClientWS::MD5Fragment({}), "");

  // The base is kept decoded and goes out encoded again; token and path have
  // every reserved character escaped, so that none ends a field early.
  const std::string url = AsyncFileUploader::UploadURL("http://host/my app/UploadStorageFile.ashx", "t+k=1",
                                                       "\\\\s\\Docs\\a&b=c #1%.txt", "&Length=5");
  EXPECT_EQ(url,
            "http://host/my%20app/UploadStorageFile.ashx?token=t%2Bk%3D1"
            "&path=%5C%5Cs%5CDocs%5Ca%26b%3Dc%20%231%25.txt&Length=5");
}
