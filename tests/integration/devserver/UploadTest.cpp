// UploadStorageFile.ashx and the part upload's calls: one-request uploads, parts
// out of order, resumed and changed uploads, the strict finish, cancel, faults,
// hostile paths, and a large body that must not be held in memory.

#include <openssl/evp.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "CommandLine.h"
#include "DevServerFixture.h"
#include "WireFormats.h"

namespace fs = std::filesystem;

namespace {

using devserver::Fault;

std::string Md5(const std::string& bytes) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(bytes.data(), bytes.size(), digest, &length, EVP_md5(), nullptr);
  unsigned char text[64];
  const int written = EVP_EncodeBlock(text, digest, static_cast<int>(length));
  return std::string(reinterpret_cast<char*>(text), static_cast<std::size_t>(written));
}

std::string Pattern(std::size_t size, unsigned seed = 7) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>((i * seed + i / 251 + seed) & 0xFF);
  }
  return bytes;
}

// Every byte but the unreserved ones escaped, as the client encodes the query.
// Every reserved character escaped, as the client sends the query.
std::string QueryEncode(const std::string& text) { return devserver::PercentEncode(text, '\0'); }

constexpr std::int64_t kPart = 1024;  // PartSize 1 KB

class UploadTest : public DevServerTest {
 protected:
  void SetUp() override {
    DevServerTest::SetUp();
    token_ = StorageToken("Docs");
    content_ = Pattern(2500);  // three parts: 1024, 1024, 452
    for (std::int64_t start = 0; start < 2500; start += kPart) {
      parts_.push_back(content_.substr(static_cast<std::size_t>(start), kPart));
    }
  }

  static std::string Location(std::string relative) {
    for (auto& c : relative) {
      if (c == '/') c = '\\';
    }
    return "\\\\devserver\\Docs\\" + relative;
  }

  std::string Target(const std::string& path, const std::string& extra,
                     const std::string& token) const {
    return "/UploadStorageFile.ashx?token=" + QueryEncode(token) + "&path=" + QueryEncode(path) +
           extra;
  }

  // One-request upload; -1 when no answer came.
  int Whole(const std::string& path, const std::string& body,
            std::optional<std::size_t> length = std::nullopt, const std::string& token = {}) {
    const auto target = Target(path, "&Length=" + std::to_string(length.value_or(body.size())),
                               token.empty() ? token_ : token);
    auto res = client_->Post(target.c_str(), body, "application/octet-stream");
    return res ? res->status : -1;
  }

  struct PartRequest {
    std::int64_t fullSize = 2500;
    std::int64_t start = 0;
    std::string body = {};
    std::optional<std::string> md5 = std::nullopt;    // default: the body's
    std::optional<std::string> range = std::nullopt;  // default: "bytes=S-E" of the body
    std::string partSizeKb = "1";
  };

  int Part(const std::string& path, const PartRequest& part) {
    const auto target =
        Target(path, "&FullSize=" + std::to_string(part.fullSize) + "&PartSize=" + part.partSizeKb,
               token_);
    httplib::Headers headers;
    if (!part.md5 || !part.md5->empty())
      headers.emplace("Content-MD5", part.md5.value_or(Md5(part.body)));
    const auto end = part.start + static_cast<std::int64_t>(part.body.size());
    const auto range =
        part.range.value_or("bytes=" + std::to_string(part.start) + "-" + std::to_string(end));
    if (!range.empty()) headers.emplace("Range", range);
    auto res = client_->Post(target.c_str(), headers, part.body, "application/octet-stream");
    return res ? res->status : -1;
  }

  // Part i of content_, as the client sends it.
  int SendPart(const std::string& path, std::size_t index) {
    return Part(path, {.start = static_cast<std::int64_t>(index) * kPart, .body = parts_[index]});
  }

  std::vector<std::string> Hashes(const std::string& path, std::int64_t partSize = kPart) {
    const auto answer =
        Post("/CorvalinkMobile.asmx", "GetHashes",
             {{"Token", token_}, {"Path", path}, {"PartSize", std::to_string(partSize)}});
    EXPECT_EQ(answer.status, 200) << answer.body;
    EXPECT_NE(ElementText(answer.body, "GetHashesResult"), "<missing>") << answer.body;
    return ElementTexts(answer.body, "string");
  }

  std::string Finish(const std::string& path, const std::vector<std::string>& hashes,
                     std::int64_t partSize = kPart) {
    std::string md5;
    for (const auto& hash : hashes) md5 += "<string>" + hash + "</string>";
    return Call("/CorvalinkMobile.asmx", "FinishPartialUpload",
                {{"Token", token_}, {"Path", path}, {"PartSize", std::to_string(partSize)}},
                {{"MD5", md5}});
  }

  std::string Cancel(const std::string& path) {
    return Call("/CorvalinkMobile.asmx", "CancelPartialUpload",
                {{"Token", token_}, {"Path", path}});
  }

  std::string FileHash(const std::string& path, bool pending) {
    const auto answer = Post("/CorvalinkMobile.asmx", "GetFileHash",
                             {{"Token", token_},
                              {"Path", path},
                              {"PartSize", "1024"},
                              {"TempFile", pending ? "true" : "false"}});
    EXPECT_EQ(answer.status, 200);
    return ElementText(answer.body, "PartialHash");
  }

  std::string Stored(const std::string& relative) {
    std::ifstream in(Folder("Docs") / relative, std::ios::binary);
    if (!in) return "<none>";
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  // Everything in the storage's folder, and what the server left in its own
  // temporary area: both must hold nothing of an upload in progress.
  std::set<std::string> FolderTree() const {
    std::set<std::string> names;
    for (const auto& entry : fs::recursive_directory_iterator(Folder("Docs"))) {
      names.insert(fs::relative(entry.path(), Folder("Docs")).string());
    }
    return names;
  }
  bool TemporaryAreaEmpty() const {
    const auto tmp = root_ / "srv" / "docs.devserver-state" / "tmp";
    return !fs::exists(tmp) || fs::is_empty(tmp);
  }

  std::vector<std::string> SentRanges() const {
    std::vector<std::string> ranges;
    for (const auto& request : server_->Requests("UploadStorageFile.ashx")) {
      ranges.push_back(request.Header("Range"));
    }
    return ranges;
  }

  std::string token_;
  std::string content_;
  std::vector<std::string> parts_;
};

TEST_F(UploadTest, OneRequestUploadReplacesTheFileAndKeepsTheEarlierContent) {
  PutFile("Docs", "notes/a.txt", "old");
  const auto before = std::time(nullptr);
  ASSERT_EQ(Whole(Location("notes/a.txt"), "brand new"), 200);
  const auto after = std::time(nullptr);
  EXPECT_EQ(Stored("notes/a.txt"), "brand new");

  // The earlier content is a version; the file's time is the upload's, in the
  // same seconds in GetFileInfo and the listing.
  const auto versions = server_->Versions("Docs", "notes/a.txt");
  ASSERT_EQ(versions.size(), 1u);
  EXPECT_EQ(Download(token_, Location("notes/a.txt"), {}, "1")->body, "old");
  const auto info = SplitOn(Call("/CorvalinkMobile.asmx", "GetFileInfo",
                                 {{"Token", token_}, {"Path", Location("notes/a.txt")}}),
                            ';');
  ASSERT_EQ(info.size(), 4u);
  EXPECT_EQ(info[2], "9");
  const auto modified = std::stoll(info[3]);
  EXPECT_GE(modified, before);
  EXPECT_LE(modified, after);
  const auto listed = ListingEntries(
      Call("/CorvalinkMobile.asmx", "GetFiles",
           {{"Token", token_}, {"Path", Location("notes")}, {"IsRecursive", "false"}}));
  ASSERT_EQ(listed.size(), 1u);
  EXPECT_EQ(SplitOn(listed[0], ':')[2], info[3]);

  // Parents are created; an empty file is a file; the handler's name matches
  // in any case under any base path.
  EXPECT_EQ(Whole(Location("new/deeper/b.bin"), content_), 200);
  EXPECT_EQ(Stored("new/deeper/b.bin"), content_);
  EXPECT_EQ(Whole(Location("empty.txt"), ""), 200);
  EXPECT_EQ(Stored("empty.txt"), "");
  auto res = client_->Post(("/corvalink/uploadSTORAGEfile.ashx?token=" + token_ +
                            "&path=" + QueryEncode(Location("c.txt")) + "&Length=1")
                               .c_str(),
                           "c", "application/octet-stream");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(FolderTree(), (std::set<std::string>{"notes", "notes/a.txt", "new", "new/deeper",
                                                 "new/deeper/b.bin", "empty.txt", "c.txt"}));
  EXPECT_TRUE(TemporaryAreaEmpty());
}

TEST_F(UploadTest, RefusedOneRequestUploadsChangeNothing) {
  PutFile("Docs", "a.txt", "old");
  fs::create_directories(Folder("Docs") / "folder");
  server_->MarkRestricted("Docs", "closed");
  struct Case {
    const char* what;
    std::string target;  // after "/UploadStorageFile.ashx?"
    std::string body;
    int status;
  };
  const auto path = "&path=" + QueryEncode(Location("a.txt"));
  const std::vector<Case> cases = {
      {"body longer than Length", "token=" + token_ + path + "&Length=2", "new", 500},
      {"body shorter than Length", "token=" + token_ + path + "&Length=4", "new", 500},
      {"Length not a number", "token=" + token_ + path + "&Length=3x", "new", 500},
      {"neither Length nor parts", "token=" + token_ + path, "new", 500},
      {"unknown token", "token=00000000-0000-0000-0000-000000000000" + path + "&Length=3", "new",
       401},
      {"no token", path.substr(1) + "&Length=3", "new", 401},
      {"a folder at the path",
       "token=" + token_ + "&path=" + QueryEncode(Location("folder")) + "&Length=3", "new", 500},
      {"the storage's root",
       "token=" + token_ + "&path=" + QueryEncode("\\\\devserver\\Docs\\") + "&Length=3", "new",
       500},
      {"a restricted path",
       "token=" + token_ + "&path=" + QueryEncode(Location("closed/x.txt")) + "&Length=3", "new",
       500},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto res = client_->Post(("/UploadStorageFile.ashx?" + c.target).c_str(), c.body,
                             "application/octet-stream");
    ASSERT_TRUE(res);
    EXPECT_EQ(res->status, c.status);
  }
  EXPECT_EQ(Stored("a.txt"), "old");
  EXPECT_TRUE(server_->Versions("Docs", "a.txt").empty());
  EXPECT_EQ(FolderTree(), (std::set<std::string>{"a.txt", "folder"}));
  EXPECT_TRUE(TemporaryAreaEmpty());
}

TEST_F(UploadTest, ExpectContinueAndRefusedBodiesKeepTheConnectionInStep) {
  const auto target = Target(Location("a.txt"), "&Length=5", token_);
  const auto answer = RawExchange(
      // Refused before its body: the body must still be read, not taken for
      // the next request.
      RawRequest(Target(Location("a.txt"), "&Length=5", "bad-token"), "", "GET /x", false) +
      RawRequest(target, "Expect: 100-continue\r\n", "hello", false) +
      RawRequest("/CorvalinkWS.asmx", "Content-Type: text/xml\r\n",
                 "<Envelope><Body><GetVersion/></Body></Envelope>", true));
  const auto unauthorized = answer.find("HTTP/1.1 401");
  const auto proceed = answer.find("HTTP/1.1 100 Continue");
  const auto stored = answer.find("HTTP/1.1 200", proceed);
  ASSERT_NE(unauthorized, std::string::npos) << answer;
  ASSERT_NE(proceed, std::string::npos) << answer;
  ASSERT_NE(stored, std::string::npos) << answer;
  EXPECT_LT(unauthorized, proceed);
  EXPECT_NE(answer.find("<GetVersionResult>6.1.0.0</GetVersionResult>", stored), std::string::npos);
  EXPECT_EQ(Stored("a.txt"), "hello");
}

TEST_F(UploadTest, PartsSentOutOfOrderAreAssembledByTheFinish) {
  const auto path = Location("big/file.bin");
  for (std::size_t index : {2u, 0u, 1u}) ASSERT_EQ(SendPart(path, index), 200) << index;

  // Pending parts are listed in offset order and kept out of the storage.
  const std::vector<std::string> hashes = {Md5(parts_[0]), Md5(parts_[1]), Md5(parts_[2])};
  EXPECT_EQ(Hashes(path), hashes);
  EXPECT_EQ(FileHash(path, true), Md5(content_));
  EXPECT_EQ(FolderTree(), std::set<std::string>{});
  EXPECT_EQ(Call("/CorvalinkMobile.asmx", "GetFileInfo", {{"Token", token_}, {"Path", path}}),
            "-6;File/Folder not found;");
  const auto pending = server_->PendingParts("Docs", "big/file.bin");
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->fullSize, 2500);
  EXPECT_EQ(pending->parts.size(), 3u);
  EXPECT_EQ(SentRanges(),
            (std::vector<std::string>{"bytes=2048-2500", "bytes=0-1024", "bytes=1024-2048"}));
  const auto last = server_->LastRequest("UploadStorageFile.ashx");
  EXPECT_EQ(last->Field("FullSize"), "2500");
  EXPECT_EQ(last->Field("PartSize"), "1");
  EXPECT_EQ(last->Field("path"), path);

  EXPECT_EQ(Finish(path, hashes), "0;");
  EXPECT_EQ(Stored("big/file.bin"), content_);
  EXPECT_FALSE(server_->PendingParts("Docs", "big/file.bin"));
  EXPECT_EQ(FolderTree(), (std::set<std::string>{"big", "big/file.bin"}));
  // Now the stored file's parts; a repeated finish (its reply lost) changes nothing.
  EXPECT_EQ(Hashes(path), hashes);
  EXPECT_EQ(FileHash(path, false), Md5(content_));
  EXPECT_EQ(Finish(path, hashes), "0;");
  EXPECT_TRUE(server_->Versions("Docs", "big/file.bin").empty());
  EXPECT_TRUE(TemporaryAreaEmpty());
}

TEST_F(UploadTest, AnInterruptedUploadResumesWithTheMissingPartsOnly) {
  const auto path = Location("resumed.bin");
  ASSERT_EQ(SendPart(path, 0), 200);
  // The connection dies inside part 1's body: nothing of it is kept.
  server_->FailNext("UploadStorageFile.ashx", Fault::Drop(100));
  EXPECT_EQ(SendPart(path, 1), -1);
  // Part 2 arrives whole, but its reply is lost.
  server_->FailNext("UploadStorageFile.ashx", Fault::DropBeforeReply());
  EXPECT_EQ(SendPart(path, 2), -1);
  EXPECT_EQ(Hashes(path), (std::vector<std::string>{Md5(parts_[0]), Md5(parts_[2])}));

  // The client starts again from part 0 and sends what the server lacks.
  server_->ClearRequests();
  std::vector<std::string> local;
  for (std::size_t i = 0; i < parts_.size(); ++i) {
    local.push_back(Md5(parts_[i]));
    const auto server = Hashes(path);
    if (std::find(server.begin(), server.end(), local.back()) == server.end()) {
      ASSERT_EQ(SendPart(path, i), 200);
    }
  }
  EXPECT_EQ(SentRanges(), std::vector<std::string>{"bytes=1024-2048"});
  EXPECT_EQ(Finish(path, local), "0;");
  EXPECT_EQ(Stored("resumed.bin"), content_);
}

TEST_F(UploadTest, TheFinishRefusesMissingPartsAWrongLengthAndAWrongOrder) {
  const auto path = Location("strict.bin");
  PutFile("Docs", "strict.bin", "stored");
  ASSERT_EQ(SendPart(path, 0), 200);
  ASSERT_EQ(SendPart(path, 2), 200);
  const std::vector<std::string> all = {Md5(parts_[0]), Md5(parts_[1]), Md5(parts_[2])};
  // A hash listed for a part that never arrived.
  EXPECT_EQ(Finish(path, all), "-5;Parts missing");
  // Every listed part is there, but they do not make the announced 2500 bytes.
  EXPECT_EQ(Finish(path, {all[0], all[2]}), "-5;Parts missing");
  EXPECT_EQ(Finish(path, {}), "-5;Parts missing");
  ASSERT_EQ(SendPart(path, 1), 200);
  // All parts there and the length right, but listed out of order.
  EXPECT_EQ(Finish(path, {all[1], all[0], all[2]}), "-5;Parts missing");
  EXPECT_EQ(Stored("strict.bin"), "stored");
  EXPECT_TRUE(server_->PendingParts("Docs", "strict.bin"));

  EXPECT_EQ(Finish(path, all), "0;");
  EXPECT_EQ(Stored("strict.bin"), content_);
  ASSERT_EQ(server_->Versions("Docs", "strict.bin").size(), 1u);
  EXPECT_EQ(Download(token_, path, {}, "1")->body, "stored");
}

TEST_F(UploadTest, PartsAreCheckedBeforeTheyAreKept) {
  const auto path = Location("checked.bin");
  struct Case {
    const char* what;
    PartRequest part;
  };
  const std::vector<Case> cases = {
      {"Content-MD5 of other bytes", {.body = parts_[0], .md5 = Md5(parts_[1])}},
      {"no Content-MD5", {.body = parts_[0], .md5 = ""}},
      {"inclusive end", {.body = parts_[0], .range = "bytes=0-1023"}},
      {"no unit", {.body = parts_[0], .range = "0-1024"}},
      {"no Range", {.body = parts_[0], .range = ""}},
      {"off the part grid", {.start = 10, .body = parts_[0]}},
      {"past the full size", {.fullSize = 2000, .start = 2048, .body = parts_[0]}},
      {"last part cut short", {.start = 2048, .body = parts_[2].substr(0, 400)}},
      {"body shorter than its Range", {.body = parts_[0].substr(0, 1000), .range = "bytes=0-1024"}},
      {"part size 0", {.body = parts_[0], .partSizeKb = "0"}},
      {"part size not a number", {.body = parts_[0], .partSizeKb = "1KB"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(Part(path, c.part), 500);
  }
  EXPECT_FALSE(server_->PendingParts("Docs", "checked.bin"));
  EXPECT_TRUE(Hashes(path).empty());
  EXPECT_TRUE(TemporaryAreaEmpty());
}

TEST_F(UploadTest, AChangedFullSizeStartsANewSetOfParts) {
  const auto path = Location("changing.bin");
  ASSERT_EQ(SendPart(path, 0), 200);
  ASSERT_EQ(SendPart(path, 1), 200);
  // The file shrank to 2000 bytes while it was sent.
  const auto shrunk = Pattern(2000, 11);
  ASSERT_EQ(Part(path, {.fullSize = 2000, .body = shrunk.substr(0, 1024)}), 200);
  const auto pending = server_->PendingParts("Docs", "changing.bin");
  ASSERT_TRUE(pending);
  EXPECT_EQ(pending->fullSize, 2000);
  ASSERT_EQ(pending->parts.size(), 1u);
  EXPECT_EQ(Hashes(path), std::vector<std::string>{Md5(shrunk.substr(0, 1024))});
  // The parts of the older content cannot be finished any more.
  EXPECT_EQ(Finish(path, {Md5(parts_[0]), Md5(parts_[1]), Md5(parts_[2])}), "-5;Parts missing");

  ASSERT_EQ(Part(path, {.fullSize = 2000, .start = 1024, .body = shrunk.substr(1024)}), 200);
  EXPECT_EQ(Finish(path, {Md5(shrunk.substr(0, 1024)), Md5(shrunk.substr(1024))}), "0;");
  EXPECT_EQ(Stored("changing.bin"), shrunk);
}

TEST_F(UploadTest, UnchangedPartsOfTheStoredFileAreNotSentAgain) {
  const auto path = Location("edited.bin");
  PutFile("Docs", "edited.bin", content_);
  auto edited = content_;
  edited.replace(1500, 5, "EDIT!");
  std::vector<std::string> local;
  for (std::int64_t start = 0; start < 2500; start += kPart) {
    local.push_back(Md5(edited.substr(static_cast<std::size_t>(start), kPart)));
  }
  EXPECT_EQ(Hashes(path),
            (std::vector<std::string>{Md5(parts_[0]), Md5(parts_[1]), Md5(parts_[2])}));
  ASSERT_EQ(Part(path, {.start = 1024, .body = edited.substr(1024, 1024)}), 200);
  // The stored parts stay listed beside the pending one: before its finish the
  // client checks that the list holds every part it skipped.
  EXPECT_EQ(Hashes(path), local);
  EXPECT_EQ(Finish(path, local), "0;");
  EXPECT_EQ(Stored("edited.bin"), edited);
  ASSERT_EQ(server_->Versions("Docs", "edited.bin").size(), 1u);

  // Cut short at a part's end: every part is on the server, nothing is sent.
  EXPECT_EQ(Finish(path, {local[0], local[1]}), "0;");
  EXPECT_EQ(Stored("edited.bin"), edited.substr(0, 2048));
}

TEST_F(UploadTest, CancelDropsPendingPartsButNeverTheStoredFile) {
  const auto path = Location("kept.txt");
  PutFile("Docs", "kept.txt", "keep me");
  ASSERT_EQ(SendPart(path, 0), 200);
  ASSERT_EQ(SendPart(path, 1), 200);
  EXPECT_EQ(FileHash(path, true), Md5(parts_[0] + parts_[1]));
  EXPECT_EQ(FileHash(path, false), Md5("keep me"));

  EXPECT_EQ(Cancel(path), "0;");
  EXPECT_FALSE(server_->PendingParts("Docs", "kept.txt"));
  EXPECT_EQ(Stored("kept.txt"), "keep me");
  EXPECT_EQ(Hashes(path), std::vector<std::string>{Md5("keep me")});
  EXPECT_EQ(FileHash(path, true), "-6;File/Folder not found;");
  EXPECT_EQ(Cancel(path), "0;");
  EXPECT_EQ(Cancel(Location("never/there.txt")), "0;");
}

TEST_F(UploadTest, InjectedFaultsReachTheUploadAndItsCalls) {
  const auto path = Location("faulty.bin");
  client_->set_keep_alive(true);
  server_->FailNext("uploadstoragefile.ashx", Fault::Status(503));
  EXPECT_EQ(Whole(path, "abc"), 503);
  EXPECT_EQ(Stored("faulty.bin"), "<none>");
  EXPECT_EQ(Whole(path, "abc"), 200);  // the same connection, still in step

  // The results come in each call's own reply form.
  server_->FailNext("GetHashes", Fault::Result("-100;Busy"));
  EXPECT_EQ(Hashes(path), std::vector<std::string>{"-100;Busy"});
  server_->FailNext("GetFileHash", Fault::Result("-1;Invalid token"));
  EXPECT_EQ(FileHash(path, false), "-1;Invalid token");
  ASSERT_EQ(SendPart(path, 0), 200);
  server_->FailNext("FinishPartialUpload", Fault::Result("-100;"));
  EXPECT_EQ(Finish(path, {Md5(parts_[0])}), "-100;");
  EXPECT_TRUE(server_->PendingParts("Docs", "faulty.bin"));
  server_->FailNext("CancelPartialUpload", Fault::Status(500));
  EXPECT_EQ(
      Post("/CorvalinkMobile.asmx", "CancelPartialUpload", {{"Token", token_}, {"Path", path}})
          .status,
      500);
  EXPECT_TRUE(server_->PendingParts("Docs", "faulty.bin"));
  EXPECT_EQ(server_->CallCount("UploadStorageFile.ashx"), 3);

  const auto line =
      devserver::ParseCommandLine({"--user", "a:b", "--fail", "UploadStorageFile.ashx,2,drop=100",
                                   "--fail", "GetHashes,*,result=-7;"});
  EXPECT_EQ(line.options.faults[0].fault.dropAfterBodyBytes, 100u);
  EXPECT_EQ(line.options.faults[1].count, -1);
}

TEST_F(UploadTest, HostilePathsAreRefusedByEveryUploadCall) {
  std::ofstream(root_ / "srv" / "secret.txt") << "secret";
  const auto outside = (root_ / "srv" / "secret.txt").string();
  for (const std::string& path :
       {std::string("\\\\devserver\\Docs\\..\\secret.txt"),
        std::string("\\\\devserver\\Docs/../secret.txt"),
        std::string("\\\\devserver\\Docs\\sub\\..\\..\\secret.txt"),
        std::string("\\\\devserver\\Docs.devserver-state\\tmp\\x"), outside, "file://" + outside}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Whole(path, "pwned"), 500);
    EXPECT_EQ(Part(path, {.body = parts_[0]}), 500);
    EXPECT_EQ(Hashes(path), std::vector<std::string>{"-6;File/Folder not found;"});
    EXPECT_EQ(FileHash(path, false), "-6;File/Folder not found;");
    EXPECT_EQ(Finish(path, {Md5(parts_[0])}), "-6;File/Folder not found;");
    EXPECT_EQ(Cancel(path), "-6;File/Folder not found;");
  }
  // A bad token comes in each call's own form too.
  token_ = "00000000-0000-0000-0000-000000000000";
  EXPECT_EQ(Hashes(Location("a.txt")), std::vector<std::string>{"-1;Invalid token"});
  EXPECT_EQ(FileHash(Location("a.txt"), false), "-1;Invalid token");
  std::ifstream in(outside);
  std::string text;
  std::getline(in, text);
  EXPECT_EQ(text, "secret");
  EXPECT_EQ(FolderTree(), std::set<std::string>{});
}

TEST_F(UploadTest, ALargeBodyGoesToDiskWithoutBeingHeldInMemory) {
  constexpr std::size_t kSize = 256u << 20;
  const auto block = Pattern(1 << 20, 13);
  auto peakKb = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::size_t>(usage.ru_maxrss);
  };
  auto residentKb = [] {
    std::ifstream statm("/proc/self/statm");
    std::size_t pages = 0;
    std::size_t resident = 0;
    statm >> pages >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)) / 1024;
  };
  const auto peakBefore = peakKb();
  const auto residentBefore = residentKb();
  const auto target = Target(Location("large.bin"), "&Length=" + std::to_string(kSize), token_);
  // The client streams too, so that only the server could account for a rise.
  auto res = client_->Post(
      target.c_str(), kSize,
      [&block](std::size_t offset, std::size_t length, httplib::DataSink& sink) {
        const auto at = offset % block.size();
        sink.write(block.data() + at, std::min(length, block.size() - at));
        return true;
      },
      "application/octet-stream");
  ASSERT_TRUE(res);
  EXPECT_EQ(res->status, 200);
  EXPECT_EQ(fs::file_size(Folder("Docs") / "large.bin"), kSize);
  // Holding the body would lift the peak by its size at least.
  EXPECT_LT(peakKb(), std::max(peakBefore, residentBefore + (64u << 10)));
  std::ifstream in(Folder("Docs") / "large.bin", std::ios::binary);
  in.seekg(static_cast<std::streamoff>(kSize - block.size()));
  std::string tail(block.size(), '\0');
  in.read(tail.data(), static_cast<std::streamsize>(tail.size()));
  EXPECT_EQ(tail, block);
}

}  // namespace
