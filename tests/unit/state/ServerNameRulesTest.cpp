// Which names a storage's kind holds, and which server names this disk holds;
// the store of what is held back because of them.

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "HeldBackNames.h"
#include "ServerNameRules.h"
#include "TempHome.h"

namespace {

using Rules = ServerNameRules;

struct NameCase {
  const char* name;
  bool shareTakes;  // CIFS, SP and O365 refuse the others; every other kind takes all
  const char* valid;  // what ValidName makes of it
};

const NameCase kNames[] = {
    {"Report.txt", true, "Report.txt"},
    {"Grüße aus Köln.txt", true, "Grüße aus Köln.txt"},
    {"a:b.txt", false, "a_b.txt"},
    {"why?.txt", false, "why_.txt"},
    {"star*.txt", false, "star_.txt"},
    {"quote\".txt", false, "quote_.txt"},
    {"<tag>", false, "_tag_"},
    {"pipe|.txt", false, "pipe_.txt"},
    {"back\\slash", false, "back_slash"},
    {"tab\tname", false, "tab_name"},
    {"ends with a dot.", false, "ends with a dot"},
    {"ends with a space ", false, "ends with a space"},
    {"...", false, "_"},
    {"CON", false, "CON_"},
    {"con.txt", false, "con_.txt"},
    {"Nul.tar.gz", false, "Nul_.tar.gz"},
    {"aux", false, "aux_"},
    {"COM1", false, "COM1_"},
    {"lpt9.doc", false, "lpt9_.doc"},
    {"COM0", true, "COM0"},
    {"COM10", true, "COM10"},
    {"CONSOLE.txt", true, "CONSOLE.txt"},
    {"my con.txt", true, "my con.txt"},
    {".hidden", true, ".hidden"},
};

class ShareNames : public ::testing::TestWithParam<NameCase> {};

TEST_P(ShareNames, AreRefusedByShareKindsOnlyAndGetAValidName) {
  const NameCase& name = GetParam();
  for (const char* kind : {"CIFS", "cifs", "SP", "O365"}) {
    EXPECT_EQ(Rules::NameProblem(name.name, kind).empty(), name.shareTakes) << kind;
    EXPECT_EQ(Rules::ValidName(name.name, kind), name.valid) << kind;
    EXPECT_TRUE(Rules::NameProblem(Rules::ValidName(name.name, kind), kind).empty()) << kind;
  }
  for (const char* kind : {"S3", "AZURE", ""}) {
    EXPECT_TRUE(Rules::NameProblem(name.name, kind).empty()) << kind;
    EXPECT_EQ(Rules::ValidName(name.name, kind), name.name) << kind;
  }
}

INSTANTIATE_TEST_SUITE_P(Table, ShareNames, ::testing::ValuesIn(kNames));

TEST(ServerNameRules, ShareKindsCompareWithoutCaseAndInComposedForm) {
  const std::string composed = "Caf\xC3\xA9.txt", decomposed = "cafe\xCC\x81.TXT";
  EXPECT_EQ(Rules::ComparisonKey("Report.txt", "CIFS"), Rules::ComparisonKey("REPORT.TXT", "SP"));
  EXPECT_EQ(Rules::ComparisonKey(composed, "O365"), Rules::ComparisonKey(decomposed, "O365"));
  EXPECT_EQ(Rules::ComparisonKey("ÄRGER", "CIFS"), Rules::ComparisonKey("ärger", "CIFS"));
  EXPECT_NE(Rules::ComparisonKey("Report.txt", "S3"), Rules::ComparisonKey("report.txt", "S3"));
  EXPECT_NE(Rules::ComparisonKey("a.txt", "CIFS"), Rules::ComparisonKey("b.txt", "CIFS"));
  EXPECT_EQ(Rules::ComparisonKey("bad\xFF", "CIFS"), "bad\xFF") << "not UTF-8: compared as it is, in ASCII lower case";
}

TEST(ServerNameRules, ServerNamesLongerThanThisDiskTakesAreFound) {
  // Bytes count, not letters: "é" takes two. A file needs room for ".NAME.cvtemp".
  auto letters = [](int count, const std::string& letter) {
    std::string text;
    for (int i = 0; i < count; ++i) text += letter;
    return text;
  };
  struct Case {
    std::string name;
    bool isFolder;
    bool fits;
  };
  const Case cases[] = {
      {letters(247, "a"), false, true},  {letters(248, "a"), false, false},
      {letters(123, "é"), false, true},  {letters(124, "é"), false, false},
      {letters(255, "a"), true, true},   {letters(256, "a"), true, false},
      {letters(127, "é"), true, true},   {letters(85, "€"), true, true},
      {letters(86, "€"), true, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Rules::LocalPathProblem("/home/a/Corvalink/Docs/" + c.name, c.isFolder).empty(), c.fits)
        << c.name.size() << " bytes, folder " << c.isFolder;
  }
  std::string deep = "/home/a/Corvalink/Docs";
  while (deep.size() < 4070) deep += "/" + letters(200, "d");
  EXPECT_FALSE(Rules::LocalPathProblem(deep + "/x.txt", false).empty());
  EXPECT_TRUE(Rules::LocalPathProblem("/home/a/Corvalink/Docs/x.txt", false).empty());
}

TEST(HeldBackNamesStore, KeepsEachNameOnceAcrossRunsAndReleasesFolders) {
  TempHome home;
  HeldBackNames& store = HeldBackNames::Instance();
  const std::string docs = home.root() + "/Docs";
  EXPECT_TRUE(store.Hold({docs + "/a:b.txt", "a reason", "a_b.txt"}));
  EXPECT_FALSE(store.Hold({docs + "/a:b.txt", "a reason", "a_b.txt"})) << "told once";
  EXPECT_FALSE(store.Hold({docs + "/a:b.txt", "a reason", "a_b (2).txt"})) << "a new suggestion is no new report";
  EXPECT_TRUE(store.Hold({docs + "/AUX", "another reason", "AUX_"}));
  EXPECT_TRUE(store.Hold({docs + "/" + std::string(250, 'x'), "too long", "", true}));
  EXPECT_EQ(store.Find(docs + "/AUX/inside.txt")->localPath, docs + "/AUX");
  EXPECT_FALSE(store.Find(docs + "/AUXILIARY"));

  // What the file holds is what a reader without the running client sees.
  auto stored = HeldBackNames::ReadFile();
  ASSERT_EQ(stored.size(), 3u);
  EXPECT_EQ(stored[0].suggestion, "a_b (2).txt");
  EXPECT_TRUE(stored[2].fromServer);
  EXPECT_GT(stored[0].since, 0);
  EXPECT_NE(HeldBackNames::Describe(stored[0]).find("Rename it, for example to \"a_b (2).txt\""), std::string::npos);
  EXPECT_EQ(std::filesystem::status(HeldBackNames::FilePath()).permissions() & std::filesystem::perms::all,
            std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

  HeldBackNames::ResetForTests();
  EXPECT_EQ(HeldBackNames::Instance().All().size(), 3u) << "read back at the next start";
  EXPECT_TRUE(HeldBackNames::Instance().Release(docs + "/AUX"));
  EXPECT_FALSE(HeldBackNames::Instance().Release(docs + "/AUX"));
  EXPECT_EQ(HeldBackNames::ReadFile().size(), 2u);

  // A file that does not parse loses nothing but what it could not say.
  std::ofstream(HeldBackNames::FilePath(), std::ios::trunc) << "<HeldBackNames><HeldBackName><localPath>/x";
  HeldBackNames::ResetForTests();
  EXPECT_TRUE(HeldBackNames::Instance().All().empty());
  EXPECT_TRUE(HeldBackNames::Instance().Hold({docs + "/CON", "again", ""}));
  EXPECT_EQ(HeldBackNames::ReadFile().size(), 1u);
}

}  // namespace
