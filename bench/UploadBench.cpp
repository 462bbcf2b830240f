// Uploads to the local server on loopback: 2,000 small files and one large file
// (CV_BENCH_LARGE_MB, 1024 by default) through the client's uploader, the same
// bytes sent by curl to the same handler for comparison, and a part upload that
// resumes after a stop with half of its parts already on the server.
// Run on demand: upload_bench [--benchmark_filter=...]; CV_BENCH_SERVER_LOG=1 prints
// the server's requests with their times.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "AsyncFileMethods.h"
#include "CVEventLogger.h"
#include "CVHandler.h"
#include "CVStaticHelpers.h"
#include "CVTextEscaping.h"
#include "Clock.h"
#include "BenchSupport.h"
#include "DevServer.h"

namespace fs = std::filesystem;
using bench::ConfigQuoted;
using bench::CountFilesPerSecond;
using bench::LargeBytes;
using bench::PeakMegabytes;

namespace {

constexpr int kSmallFiles = 2000;
constexpr std::size_t kSmallSize = 4096;
// The part size the server hands out; the client asks for it as it does in use.
constexpr std::int64_t kPartKb = 4096;
// A version with part upload, and one without (every file in one request).
constexpr const char* kPartVersion = "6.1.0.0";
constexpr const char* kWholeVersion = "5.0.0";

// Content that differs from file to file, so that no two small files are alike.
std::string SmallContent(int index) {
  std::string block(kSmallSize, '\0');
  for (std::size_t i = 0; i < block.size(); ++i) block[i] = static_cast<char>(i * 31 + static_cast<std::size_t>(index));
  return block;
}

bool SameBytes(const fs::path& a, const fs::path& b) {
  std::error_code error;
  if (fs::file_size(a, error) != fs::file_size(b, error) || error) return false;
  std::ifstream left(a, std::ios::binary);
  std::ifstream right(b, std::ios::binary);
  // Kept between calls: 2,000 fresh buffers would cost more than the reads.
  static std::vector<char> one(1 << 20);
  static std::vector<char> two(1 << 20);
  while (left && right) {
    left.read(one.data(), static_cast<std::streamsize>(one.size()));
    right.read(two.data(), static_cast<std::streamsize>(two.size()));
    if (left.gcount() != right.gcount()) return false;
    if (!std::equal(one.begin(), one.begin() + left.gcount(), two.begin())) return false;
  }
  return !left.bad() && !right.bad();
}

// One server and one client home for the whole run. Each benchmark sends to
// server paths of its own: a stored file would offer its part hashes, and the
// client would skip the parts instead of sending them.
struct World {
  fs::path root;
  std::unique_ptr<devserver::DevServer> server;
  std::shared_ptr<Clock> clock = std::make_shared<Clock>(1.0);
  std::string token;
  std::atomic<std::int64_t> finishCalled{0};  // steady clock ticks of the last FinishPartialUpload

  World() {
    root = fs::temp_directory_path() / ("cv-upload-bench-" + std::to_string(getpid()));
    fs::create_directories(root / "home");
    fs::create_directories(root / "server/Bench");
    setenv("HOME", (root / "home").c_str(), 1);
    CVEventLogger::SetConsoleEcho(false);

    fs::create_directories(Local("small"));
    for (int i = 0; i < kSmallFiles; ++i) {
      std::ofstream(Local(SmallName(i)), std::ios::binary) << SmallContent(i);
    }
    bench::WriteLargeFile(Local("large.bin"), LargeBytes());
    // The resumed upload needs a local path of its own; the same bytes serve.
    fs::create_directories(Local("resume"));
    std::error_code linked;
    fs::create_hard_link(Local("large.bin"), Local("resume/large.bin"), linked);
    if (linked) fs::copy_file(Local("large.bin"), Local("resume/large.bin"));

    devserver::ServerOptions options;
    options.port = 0;
    options.users = {{"bench", "bench"}};
    options.storages = {{"Bench", root / "server/Bench", "CIFS", {}, std::nullopt}};
    options.compressedTypes = "txt";  // the .bin files travel as they are
    options.partSizeKb = kPartKb;
    options.versionReply = kPartVersion;
    // The server's assembly of the parts is its own work, not the client's: the
    // time its request came tells the two apart.
    const bool print = std::getenv("CV_BENCH_SERVER_LOG") != nullptr;
    const auto start = std::chrono::steady_clock::now();
    options.log = [this, print, start](const std::string& line) {
      const auto now = std::chrono::steady_clock::now();
      if (line.find(" FinishPartialUpload") != std::string::npos) finishCalled = now.time_since_epoch().count();
      if (print) {
        const auto ms = std::chrono::duration<double, std::milli>(now - start).count();
        std::fprintf(stderr, "[%10.1f ms] %s\n", ms, line.c_str());
      }
    };
    server = std::make_unique<devserver::DevServer>(options);
    server->Start();

    token = bench::UseBenchAccount(server->BaseUrl(), server->LocationOf("Bench"));
  }
  ~World() {
    server->Stop();
    std::error_code error;
    fs::remove_all(root, error);
  }

  static std::string SmallName(int index) { return "small/f" + std::to_string(index) + ".bin"; }
  std::string Local(const std::string& relative) const {
    return CVStaticHelpers::GenerateRootPath() + "/Bench/" + relative;
  }
  fs::path OnServer(const std::string& relative) const { return server->FolderOf("Bench") / relative; }

  // The server's version decides between part upload and one request; the
  // client keeps the version it read until asked to read it again.
  void UseVersion(const char* version) {
    server->SetVersionReply(version);
    CVHandler::Instance().RunVersionWS();
  }

  // curl sending each local file in one request to the given server path, one
  // process for all of them. A file read into memory first (--data-binary) is
  // how small files go; curl refuses that for a file of a GiB, which it streams
  // from disk instead (--upload-file, still a POST).
  bool Curl(const std::vector<std::pair<std::string, std::string>>& localAndServer, bool stream = false) const {
    fs::path config = root / "curl.cfg";
    {
      std::ofstream out(config);
      for (std::size_t i = 0; i < localAndServer.size(); ++i) {
        const auto& [local, relative] = localAndServer[i];
        std::string serverPath = server->LocationOf("Bench") + relative;
        for (char& c : serverPath) {
          if (c == '/') c = '\\';
        }
        if (i) out << "next\n";
        out << "url = \"" << server->BaseUrl() << "UploadStorageFile.ashx?token=" << CVTextEscaping::URLEncodedString(token)
            << "&path=" << CVTextEscaping::URLEncodedString(serverPath) << "&Length=" << fs::file_size(local) << "\"\n"
            << (stream ? "upload-file = \"" : "data-binary = \"@") << ConfigQuoted(local) << "\"\n"
            << "request = \"POST\"\n"
            << "header = \"Content-Type: application/octet-stream\"\n"
            << "fail\nsilent\nshow-error\n"
            << "output = \"/dev/null\"\n";
      }
    }
    std::string command = "curl -K '" + config.string() + "'";
    return std::system(command.c_str()) == 0;
  }
};

World& TheWorld() {
  static World world;
  return world;
}

// Seconds from the last FinishPartialUpload to now; 0 when none came since `since`.
double SecondsSinceFinish(const World& world, std::chrono::steady_clock::time_point since) {
  const std::chrono::steady_clock::time_point called{std::chrono::steady_clock::duration(world.finishCalled.load())};
  if (called < since) return 0;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - called).count();
}

CVFileWithAction Item(const std::string& local) {
  CVFileWithAction item;
  item.nFilePath = local;
  item.fileSize = static_cast<std::int64_t>(fs::file_size(local));
  item.fileAction = FWA_UploadToServer;
  return item;
}

std::int64_t PartCount() { return AsyncFileMethods::PartCount(LargeBytes(), kPartKb * 1024); }

void BM_ClientSmallFiles(benchmark::State& state) {
  World& world = TheWorld();
  world.UseVersion(kWholeVersion);
  // The cost of a file early and late in the run: one that grows with the
  // number of files sent before it shows as a difference between the two.
  constexpr int kEdge = 200;
  double firstMs = 0;
  double lastMs = 0;
  for (auto _ : state) {
    // One object for all files, as the sync thread holds one.
    AsyncFileMethods methods(world.clock);
    auto mark = std::chrono::steady_clock::now();
    for (int i = 0; i < kSmallFiles; ++i) {
      if (i == kEdge || i == kSmallFiles - kEdge) {
        const auto now = std::chrono::steady_clock::now();
        if (i == kEdge) firstMs = std::chrono::duration<double, std::milli>(now - mark).count() / kEdge;
        mark = now;
      }
      CVFileWithAction item = Item(world.Local(World::SmallName(i)));
      if (methods.UploadFileToServer(item) != 0) {
        state.SkipWithError(("the upload of " + World::SmallName(i) + " failed").c_str());
        return;
      }
    }
    lastMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - mark).count() / kEdge;
  }
  const double peak = PeakMegabytes();
  for (int i = 0; i < kSmallFiles; ++i) {
    if (!SameBytes(world.Local(World::SmallName(i)), world.OnServer(World::SmallName(i)))) {
      state.SkipWithError(("the server's " + World::SmallName(i) + " differs").c_str());
      return;
    }
  }
  CountFilesPerSecond(state, kSmallFiles);
  state.counters["first_200_ms_per_file"] = firstMs;
  state.counters["last_200_ms_per_file"] = lastMs;
  state.counters["peak_MB"] = peak;
}

void BM_CurlSmallFiles(benchmark::State& state) {
  World& world = TheWorld();
  std::vector<std::pair<std::string, std::string>> files;
  for (int i = 0; i < kSmallFiles; ++i) {
    files.emplace_back(world.Local(World::SmallName(i)), "curl-" + World::SmallName(i));
  }
  for (auto _ : state) {
    if (!world.Curl(files)) {
      state.SkipWithError("curl failed");
      return;
    }
  }
  for (int i = 0; i < kSmallFiles; ++i) {
    if (!SameBytes(world.Local(World::SmallName(i)), world.OnServer("curl-" + World::SmallName(i)))) {
      state.SkipWithError("curl did not send every file whole");
      return;
    }
  }
  CountFilesPerSecond(state, kSmallFiles);
}

void BM_ClientLargeFile(benchmark::State& state) {
  World& world = TheWorld();
  world.UseVersion(kPartVersion);
  world.server->ClearRequests();
  double finish = 0;
  for (auto _ : state) {
    const auto begun = std::chrono::steady_clock::now();
    AsyncFileMethods methods(world.clock);
    CVFileWithAction item = Item(world.Local("large.bin"));
    if (methods.UploadFileToServer(item) != 0) {
      state.SkipWithError("the upload failed");
      return;
    }
    finish = SecondsSinceFinish(world, begun);
  }
  const double peak = PeakMegabytes();
  if (!SameBytes(world.Local("large.bin"), world.OnServer("large.bin"))) {
    state.SkipWithError("the server's file differs from the local one");
    return;
  }
  state.SetBytesProcessed(LargeBytes() * state.iterations());
  state.counters["parts_sent"] = world.server->CallCount("UploadStorageFile.ashx");
  state.counters["get_hashes_calls"] = world.server->CallCount("GetHashes");
  state.counters["finish_s"] = finish;
  state.counters["peak_MB"] = peak;
}

void BM_CurlLargeFile(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    if (!world.Curl({{world.Local("large.bin"), "curl-large.bin"}}, true)) {
      state.SkipWithError("curl failed");
      return;
    }
  }
  if (!SameBytes(world.Local("large.bin"), world.OnServer("curl-large.bin"))) {
    state.SkipWithError("curl did not send the whole file");
    return;
  }
  state.SetBytesProcessed(LargeBytes() * state.iterations());
  // An upper bound: a child's peak starts from ours at the fork.
  state.counters["curl_peak_MB"] = PeakMegabytes(RUSAGE_CHILDREN);
}

// The first half of the parts reach the server, then a stop ends the upload
// as a user's pause or a quit would; only the upload that follows is timed.
void BM_ClientLargeFileResumed(benchmark::State& state) {
  World& world = TheWorld();
  world.UseVersion(kPartVersion);
  const std::string relative = "resume/large.bin";
  const std::int64_t parts = PartCount();
  std::size_t pendingBefore = 0;
  int sentOnResume = 0;
  int resent = 0;
  double finish = 0;
  for (auto _ : state) {
    state.PauseTiming();
    {
      std::error_code error;
      fs::remove(world.OnServer(relative), error);
      AsyncFileMethods first(world.clock);
      std::atomic<bool> done{false};
      std::thread stopper([&] {
        const auto half = static_cast<std::size_t>(parts / 2);
        while (!done) {
          auto pending = world.server->PendingParts("Bench", relative);
          if (pending && pending->parts.size() >= half) {
            first.StopCurrentAction();
            return;
          }
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      });
      CVFileWithAction item = Item(world.Local(relative));
      const std::int32_t stopped = first.UploadFileToServer(item);
      done = true;
      stopper.join();
      if (stopped == 0 || parts < 2) {
        state.SkipWithError("the first upload was not stopped half way");
        return;
      }
      // A part in flight at the stop may still land: wait until the count holds.
      std::size_t count = 0;
      for (int still = 0; still < 5;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        auto pending = world.server->PendingParts("Bench", relative);
        const std::size_t now = pending ? pending->parts.size() : 0;
        still = now == count ? still + 1 : 0;
        count = now;
      }
      pendingBefore = count;
    }
    std::set<std::int64_t> held;
    if (auto pending = world.server->PendingParts("Bench", relative)) {
      for (const auto& part : pending->parts) held.insert(part.start);
    }
    world.server->ClearRequests();
    state.ResumeTiming();

    const auto begun = std::chrono::steady_clock::now();
    AsyncFileMethods methods(world.clock);
    CVFileWithAction item = Item(world.Local(relative));
    if (methods.UploadFileToServer(item) != 0) {
      state.SkipWithError("the resumed upload failed");
      return;
    }

    state.PauseTiming();
    finish = SecondsSinceFinish(world, begun);
    sentOnResume = world.server->CallCount("UploadStorageFile.ashx");
    resent = 0;
    for (const auto& request : world.server->Requests("UploadStorageFile.ashx")) {
      const std::string range = request.Header("Range");
      const auto dash = range.find('-');
      if (range.rfind("bytes=", 0) == 0 && dash != std::string::npos &&
          held.count(std::atoll(range.substr(6, dash - 6).c_str()))) {
        ++resent;
      }
    }
    state.ResumeTiming();
  }
  const double peak = PeakMegabytes();
  if (!SameBytes(world.Local(relative), world.OnServer(relative))) {
    state.SkipWithError("the server's file differs from the local one");
    return;
  }
  if (world.server->PendingParts("Bench", relative)) {
    state.SkipWithError("parts are still pending after the finish");
    return;
  }
  if (resent > 0 || sentOnResume != parts - static_cast<std::int64_t>(pendingBefore)) {
    state.SkipWithError(("the resumed upload sent " + std::to_string(sentOnResume) + " parts (" +
                         std::to_string(resent) + " the server held) for " +
                         std::to_string(parts - static_cast<std::int64_t>(pendingBefore)) + " missing")
                            .c_str());
    return;
  }
  state.counters["parts_total"] = static_cast<double>(parts);
  state.counters["parts_pending_before"] = static_cast<double>(pendingBefore);
  state.counters["parts_sent_on_resume"] = sentOnResume;
  state.counters["finish_s"] = finish;
  state.counters["peak_MB"] = peak;
}

}  // namespace

BENCHMARK(BM_ClientSmallFiles)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CurlSmallFiles)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ClientLargeFile)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CurlLargeFile)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ClientLargeFileResumed)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

BENCHMARK_MAIN();
