// Uploads against the fake server: the choice between one request and parts,
// what each part carries, parts the server has, repeats, refused tokens, files
// that change under the upload, and a stop from another thread.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <thread>

#include "AsyncFileUploader.h"
#include "FakeServerFixture.h"
#include "MobileClientWS.h"
#include "MyParser.h"

namespace {

constexpr std::int64_t kPart = 1024;  // the fake's 1 KB

// Parts travel several at a time: their order on the wire is any.
std::multiset<std::int64_t> RangeStarts(const std::vector<UploadRecord>& uploads) {
  std::multiset<std::int64_t> starts;
  for (const auto& upload : uploads) starts.insert(upload.rangeStart);
  return starts;
}

std::vector<UploadRecord> ByRange(std::vector<UploadRecord> uploads) {
  std::stable_sort(uploads.begin(), uploads.end(),
                   [](const UploadRecord& a, const UploadRecord& b) { return a.rangeStart < b.rangeStart; });
  return uploads;
}

}  // namespace

class UploadTest : public FakeServerTest {};

TEST_F(UploadTest, PartsCarryTheirRangeAndHashAndTheServerAssemblesThem) {
  const std::string bytes = RandomBytes(5 * kPart / 2);
  CVFileWithAction item = LocalFile("Docs", "Reports/q&1 +report%.bin", bytes);
  const std::string server = "\\\\fake\\Docs\\Reports\\q&1 +report%.bin";

  ASSERT_EQ(methods_->UploadFileToServer(item), 0);

  const auto uploads = ByRange(fake_->Uploads());
  ASSERT_EQ(uploads.size(), 3u);
  const char* ranges[] = {"bytes=0-1024", "bytes=1024-2048", "bytes=2048-2560"};
  std::vector<std::string> hashes;
  for (std::size_t i = 0; i < uploads.size(); ++i) {
    SCOPED_TRACE(i);
    const std::string part = bytes.substr(i * kPart, kPart);
    hashes.push_back(FakeFileService::Base64MD5(part));
    EXPECT_EQ(uploads[i].headers.valueForKey("Range"), ranges[i]);
    EXPECT_EQ(uploads[i].headers.valueForKey("Content-MD5"), hashes.back());
    EXPECT_EQ(uploads[i].headers.valueForKey("Content-Length"), std::to_string(part.size()));
    EXPECT_EQ(uploads[i].body, part);
    // Every reserved character of the path is escaped: the query reads back whole.
    EXPECT_EQ(uploads[i].query.at("path"), server);
    EXPECT_EQ(uploads[i].query.at("FullSize"), "2560");
    EXPECT_EQ(uploads[i].query.at("PartSize"), "1");
    EXPECT_EQ(uploads[i].query.count("Length"), 0u);
  }
  const auto finish = fake_->Calls("FinishPartialUpload");
  ASSERT_EQ(finish.size(), 1u);
  EXPECT_EQ(finish[0].Parameter("PartSize"), "1024");
  EXPECT_NE(finish[0].envelope.find("<MD5>" + MobileClientWS::MD5Fragment(hashes) + "</MD5>"), std::string::npos);
  EXPECT_EQ(fake_->File(server), bytes);

  // The record and the file take the server's time, so the next pass sees no change.
  auto record = RecordOf(item.nFilePath);
  ASSERT_TRUE(record);
  EXPECT_EQ(record->size, 2560);
  EXPECT_EQ(record->modifiedTime, 1'700'000'000);
  EXPECT_EQ(ModificationTime(item.nFilePath), 1'700'000'000);
}

TEST_F(UploadTest, TheSizeTheStorageAndTheServerDecideBetweenOneRequestAndParts) {
  struct Case {
    const char* storage;
    std::size_t size;
    bool parts;
  };
  const Case cases[] = {
      {"Docs", kPart, true},       // exactly one part: the partial way, one part
      {"Docs", kPart - 1, false},  // one byte less: one request
      {"Docs", 0, false},          //
      {"Web", 3 * kPart, true},    //
      {"Share", 3 * kPart, false},  // SharePoint takes no parts
      {"Blob", 3 * kPart, false},   // azure parts are 4 MiB, whatever is configured
  };
  int n = 0;
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.storage) + " " + std::to_string(c.size));
    const std::size_t before = fake_->Uploads().size();
    ++n;
    CVFileWithAction item = LocalFile(c.storage, "f" + std::to_string(n) + ".bin", RandomBytes(c.size, n));
    ASSERT_EQ(methods_->UploadFileToServer(item), 0);
    const auto uploads = fake_->Uploads();
    ASSERT_EQ(uploads.size() - before, c.parts ? (c.size + kPart - 1) / kPart : 1u);
    const UploadRecord& last = uploads.back();
    EXPECT_EQ(last.query.count("FullSize"), c.parts ? 1u : 0u);
    EXPECT_EQ(last.query.count("Length"), c.parts ? 0u : 1u);
    if (!c.parts) {
      EXPECT_EQ(last.query.at("Length"), std::to_string(c.size));
      EXPECT_FALSE(last.headers.contains("Range"));
    }
    if (c.size == 0) {
      EXPECT_EQ(last.headers.valueForKey("Content-Type"), "text/xml; charset=utf-8");
    }
  }

  // A server below level 2 takes whole files only.
  fake_->SetVersion("5.0.0");
  CVHandler::Instance().RunVersionWS();
  CVFileWithAction old = LocalFile("Docs", "old.bin", RandomBytes(3 * kPart));
  ASSERT_EQ(methods_->UploadFileToServer(old), 0);
  EXPECT_EQ(fake_->Uploads().back().query.count("Length"), 1u);
}

TEST_F(UploadTest, PartsTheServerHasAreNotSentAgain) {
  const std::string bytes = RandomBytes(5 * kPart / 2);
  CVFileWithAction item = LocalFile("Docs", "resumed.bin", bytes);
  const std::string server = "\\\\fake\\Docs\\resumed.bin";
  // An earlier run sent the first two parts.
  fake_->PutPendingPart(server, 0, bytes.substr(0, kPart));
  fake_->PutPendingPart(server, kPart, bytes.substr(kPart, kPart));

  ASSERT_EQ(methods_->UploadFileToServer(item), 0);
  EXPECT_EQ(RangeStarts(fake_->Uploads()), std::multiset<std::int64_t>{2 * kPart});
  auto finish = fake_->Calls("FinishPartialUpload");
  ASSERT_EQ(finish.size(), 1u);
  MyParser parser;
  EXPECT_EQ(MyParser::StringsOf(parser.GetParsedArrayForNode("MD5", finish[0].envelope)).size(), 3u);
  EXPECT_EQ(fake_->File(server), bytes);
}

TEST_F(UploadTest, APartsHashIsListedOnlyOnceTheServerHasIt) {
  const std::string bytes = RandomBytes(2 * kPart);
  CVFileWithAction item = LocalFile("Docs", "part.bin", bytes);
  const std::string server = "\\\\fake\\Docs\\part.bin";
  const std::string token = CVHandler::Instance().CheckCVToken("Docs");
  const std::string second = FakeFileService::Base64MD5(bytes.substr(kPart));
  AsyncFileUploader uploader(clock_);
  std::vector<std::string> local;

  fake_->OnUpload([](const UploadRecord&) { return 503; });
  EXPECT_EQ(uploader.PartialUploadFileToServerAtPath(item.nFilePath, token, server, {}, local, kPart, 1), 503);
  EXPECT_TRUE(local.empty());
  fake_->OnUpload(nullptr);
  EXPECT_EQ(uploader.PartialUploadFileToServerAtPath(item.nFilePath, token, server, {}, local, kPart, 1), 200);
  EXPECT_EQ(local, std::vector<std::string>{second});
  // Listed by the server: no request, and the hash counts as sent.
  EXPECT_EQ(uploader.PartialUploadFileToServerAtPath(item.nFilePath, token, server, {second}, local, kPart, 1),
            15);
  EXPECT_EQ(local, (std::vector<std::string>{second, second}));
  EXPECT_EQ(fake_->Uploads().size(), 2u);
  // A part past the end of the file cannot be read: a failure, never "the server has it".
  EXPECT_EQ(uploader.PartialUploadFileToServerAtPath(item.nFilePath, token, server, {""}, local, kPart, 2), 500);
  EXPECT_EQ(local.size(), 2u);
}

TEST_F(UploadTest, AFailingPartIsRepeatedAFewTimesAndItsHashListedOnce) {
  // Fails twice, then goes through: the list names each part once, in order.
  std::atomic<int> refusals{0};
  fake_->OnUpload([&](const UploadRecord& upload) {
    return upload.rangeStart == kPart && refusals++ < 2 ? 409 : FakeFileService::kHandle;
  });
  const std::string bytes = RandomBytes(5 * kPart / 2);
  CVFileWithAction item = LocalFile("Docs", "flaky.bin", bytes);
  ASSERT_EQ(methods_->UploadFileToServer(item), 0);
  EXPECT_EQ(RangeStarts(fake_->Uploads()), (std::multiset<std::int64_t>{0, kPart, kPart, kPart, 2 * kPart}));
  auto finish = fake_->Calls("FinishPartialUpload");
  ASSERT_EQ(finish.size(), 1u);
  MyParser parser;
  std::vector<std::string> expected;
  for (std::size_t offset = 0; offset < bytes.size(); offset += kPart) {
    expected.push_back(FakeFileService::Base64MD5(bytes.substr(offset, kPart)));
  }
  EXPECT_EQ(MyParser::StringsOf(parser.GetParsedArrayForNode("MD5", finish[0].envelope)), expected);

  // Fails for good: three repeats, then the status comes back and nothing is assembled.
  fake_->OnUpload([](const UploadRecord& upload) {
    return upload.rangeStart == kPart ? 409 : FakeFileService::kHandle;
  });
  const std::size_t before = fake_->Uploads().size();
  CVFileWithAction stuck = LocalFile("Docs", "stuck.bin", RandomBytes(5 * kPart / 2, 3));
  EXPECT_EQ(methods_->UploadFileToServer(stuck), -5);
  const auto uploads = fake_->Uploads();
  EXPECT_EQ(RangeStarts({uploads.begin() + static_cast<std::ptrdiff_t>(before), uploads.end()}).count(kPart), 4u);
  EXPECT_EQ(fake_->Count("FinishPartialUpload"), 1);
  EXPECT_FALSE(fake_->File("\\\\fake\\Docs\\stuck.bin"));
}

TEST_F(UploadTest, ARefusedTokenIsRenewedOnceAndTwoRefusalsEndThePass) {
  // A first upload logs in; then the server forgets every token.
  CVFileWithAction first = LocalFile("Docs", "first.bin", RandomBytes(100));
  ASSERT_EQ(methods_->UploadFileToServer(first), 0);
  fake_->RefuseTokens();

  CVFileWithAction item = LocalFile("Docs", "renewed.bin", RandomBytes(5 * kPart / 2));
  ASSERT_EQ(methods_->UploadFileToServer(item), 0);
  auto uploads = fake_->Uploads();
  ASSERT_GE(uploads.size(), 5u);
  const std::string refused = uploads[1].query.at("token");
  const std::string fresh = uploads.back().query.at("token");
  EXPECT_NE(refused, fresh);
  // Each refused part went again with the new token; no part was lost on the way.
  std::multiset<std::int64_t> refusedParts, freshParts;
  for (std::size_t i = 1; i < uploads.size(); ++i) {
    (uploads[i].query.at("token") == fresh ? freshParts : refusedParts).insert(uploads[i].rangeStart);
  }
  EXPECT_EQ(freshParts, (std::multiset<std::int64_t>{0, kPart, 2 * kPart}));
  for (std::int64_t start : refusedParts) EXPECT_EQ(freshParts.count(start), 1u);
  EXPECT_EQ(fake_->File("\\\\fake\\Docs\\renewed.bin").value_or("").size(), std::size_t{5 * kPart / 2});

  // A server that refuses every part: each pass renews once, then the upload gives up.
  fake_->OnUpload([](const UploadRecord&) { return 401; });
  const std::size_t before = fake_->Uploads().size();
  CVFileWithAction never = LocalFile("Docs", "never.bin", RandomBytes(5 * kPart / 2, 5));
  EXPECT_EQ(methods_->UploadFileToServer(never), -1000);
  // Three passes, each part on the wire tried twice.
  EXPECT_GE(fake_->Uploads().size() - before, 3u * 2u);
  EXPECT_LE(fake_->Uploads().size() - before, 3u * 2u * AsyncFileMethods::kPartsInFlight);
  EXPECT_EQ(fake_->Count("FinishPartialUpload"), 1);

  // One request: refused once, sent again with a new token.
  std::atomic<int> calls{0};
  fake_->OnUpload([&](const UploadRecord&) { return calls++ == 0 ? 401 : FakeFileService::kHandle; });
  CVFileWithAction small = LocalFile("Docs", "small.bin", RandomBytes(10));
  EXPECT_EQ(methods_->UploadFileToServer(small), 0);
  EXPECT_EQ(calls.load(), 2);
}

TEST_F(UploadTest, AFileThatChangesSizeDuringItsUploadIsNotAssembled) {
  CVFileWithAction item = LocalFile("Docs", "growing.log", RandomBytes(5 * kPart / 2));
  fake_->OnUpload([&](const UploadRecord& upload) {
    if (upload.rangeStart == kPart) {
      std::ofstream out(item.nFilePath, std::ios::binary | std::ios::app);
      out << "one more line\n";
    }
    return FakeFileService::kHandle;
  });
  EXPECT_EQ(methods_->UploadFileToServer(item), -5);
  EXPECT_EQ(RangeStarts(fake_->Uploads()).count(kPart), 1u);
  EXPECT_EQ(fake_->Count("FinishPartialUpload"), 0);
  EXPECT_FALSE(fake_->File("\\\\fake\\Docs\\growing.log"));
  EXPECT_FALSE(RecordOf(item.nFilePath));

  // Gone before the upload: nothing is sent, pending parts are dropped.
  const std::size_t sent = fake_->Uploads().size();
  CVFileWithAction gone = item;
  gone.nFilePath = Local("Docs", "gone.bin");
  EXPECT_EQ(methods_->UploadFileToServer(gone), -5);
  EXPECT_EQ(fake_->Uploads().size(), sent);
  EXPECT_EQ(fake_->Calls("CancelPartialUpload").back().Parameter("Path"), "\\\\fake\\Docs\\gone.bin");
}

TEST_F(UploadTest, AFinishTheServerRefusesDropsThePartsAndTheNextPassSendsThemAgain) {
  fake_->ReplyNext("FinishPartialUpload", "-5;Parts missing");
  fake_->ReplyNext("FinishPartialUpload", "-5;Parts missing");
  CVFileWithAction item = LocalFile("Docs", "refused.bin", RandomBytes(5 * kPart / 2));
  EXPECT_EQ(methods_->UploadFileToServer(item), 0);
  EXPECT_EQ(fake_->Count("FinishPartialUpload"), 3);  // two in the first pass, one in the second
  EXPECT_EQ(fake_->Count("CancelPartialUpload"), 1);
  EXPECT_EQ(fake_->Uploads().size(), 6u);
}

TEST_F(UploadTest, AStopFromAnotherThreadEndsTheTransferInFlight) {
  fake_->OnUpload([](const UploadRecord& upload) {
    return upload.rangeStart == kPart ? FakeFileService::kStopped : FakeFileService::kHandle;
  });
  CVFileWithAction item = LocalFile("Docs", "big.bin", RandomBytes(5 * kPart / 2));
  std::thread stopper([&] {
    if (fake_->WaitForHeldUpload(std::chrono::seconds(20))) methods_->StopCurrentAction();
  });
  const auto start = std::chrono::steady_clock::now();
  const std::int32_t result = methods_->UploadFileToServer(item);
  const auto took = std::chrono::steady_clock::now() - start;
  stopper.join();
  EXPECT_EQ(result, -5);
  EXPECT_TRUE(methods_->actionWasStoppedByUser());
  EXPECT_LT(took, std::chrono::seconds(10));  // the held request would keep it a minute
  EXPECT_EQ(RangeStarts(fake_->Uploads()).count(kPart), 1u);
  EXPECT_EQ(fake_->Count("FinishPartialUpload"), 0);
}

TEST_F(UploadTest, AStopEndsThePauseBeforeARepeat) {
  // On a slow clock the pause before a repeat lasts twenty seconds.
  methods_ = std::make_unique<AsyncFileMethods>(std::make_shared<Clock>(10.0));
  std::atomic<bool> refused{false};
  fake_->OnUpload([&](const UploadRecord& upload) {
    if (upload.rangeStart != kPart) return FakeFileService::kHandle;
    refused = true;
    return 409;
  });
  CVFileWithAction item = LocalFile("Docs", "paused.bin", RandomBytes(5 * kPart / 2));
  std::thread stopper([&] {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!refused && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
    methods_->StopCurrentAction();
  });
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(methods_->UploadFileToServer(item), -5);
  const auto took = std::chrono::steady_clock::now() - start;
  stopper.join();
  EXPECT_LT(took, std::chrono::seconds(10));
  EXPECT_EQ(RangeStarts(fake_->Uploads()).count(kPart), 1u);
}
