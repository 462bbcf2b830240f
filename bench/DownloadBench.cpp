// Downloads from the local server on loopback: 2,000 small files and one large
// file (CV_BENCH_LARGE_MB, 1024 by default) through the client's downloader, and
// the same bytes fetched by curl from the same server, for comparison.
// Run on demand: download_bench [--benchmark_filter=...].

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "AsyncFileDownloader.h"
#include "CVEventLogger.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
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

// One server and one client home for the whole run.
struct World {
  fs::path root;
  std::unique_ptr<devserver::DevServer> server;
  std::string token;

  World() {
    root = fs::temp_directory_path() / ("cv-download-bench-" + std::to_string(getpid()));
    fs::create_directories(root / "home");
    fs::create_directories(root / "server/Bench/small");
    setenv("HOME", (root / "home").c_str(), 1);
    CVEventLogger::SetConsoleEcho(false);

    std::string block(kSmallSize, 'x');
    for (int i = 0; i < kSmallFiles; ++i) {
      std::ofstream(root / "server/Bench/small" / ("f" + std::to_string(i) + ".bin"), std::ios::binary) << block;
    }
    bench::WriteLargeFile(root / "server/Bench/large.bin", LargeBytes());

    devserver::ServerOptions options;
    options.port = 0;
    options.users = {{"bench", "bench"}};
    options.storages = {{"Bench", root / "server/Bench", "CIFS", {}, std::nullopt}};
    options.compressedTypes = "txt";  // the .bin files travel as they are
    server = std::make_unique<devserver::DevServer>(options);
    server->Start();

    token = bench::UseBenchAccount(server->BaseUrl(), server->LocationOf("Bench"));
  }
  ~World() {
    server->Stop();
    std::error_code error;
    fs::remove_all(root, error);
  }
  std::string Local(const std::string& relative) const {
    return CVStaticHelpers::GenerateRootPath() + "/Bench/" + relative;
  }
  // curl fetching the given server files, one process for all of them.
  void Curl(const std::vector<std::string>& relative, const fs::path& into) const {
    fs::create_directories(into);
    fs::path config = root / "curl.cfg";
    {
      std::ofstream out(config);
      for (std::size_t i = 0; i < relative.size(); ++i) {
        if (i) out << "next\n";
        out << "url = \"" << server->BaseUrl() << "DownloadStorageFile.ashx\"\n"
            << "data = \"token=" << token << "\"\n"
            << "data-urlencode = \"path=" << ConfigQuoted(server->LocationOf("Bench") + relative[i]) << "\"\n"
            << "output = \"" << (into / ("c" + std::to_string(i))).string() << "\"\n";
      }
    }
    std::string command = "curl -sS -f -K '" + config.string() + "'";
    if (std::system(command.c_str()) != 0) throw std::runtime_error("curl failed");
  }
};

World& TheWorld() {
  static World world;
  return world;
}

CVFileWithAction Item(const std::string& local, std::int64_t size) {
  CVFileWithAction item;
  item.nFilePath = local;
  item.fileSize = size;
  item.fileAction = FWA_DownloadFromServer;
  item.dateModified = 1700000000;
  return item;
}

void BM_ClientSmallFiles(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) {
    fs::remove_all(world.Local("small"));
    fs::create_directories(world.Local("small"));
    for (int i = 0; i < kSmallFiles; ++i) {
      AsyncFileDownloader downloader;
      if (!downloader.DownloadFile(Item(world.Local("small/f" + std::to_string(i) + ".bin"), kSmallSize))) {
        state.SkipWithError("a download failed");
        return;
      }
    }
  }
  CountFilesPerSecond(state, kSmallFiles);
  state.counters["peak_MB"] = PeakMegabytes();
}

void BM_CurlSmallFiles(benchmark::State& state) {
  World& world = TheWorld();
  std::vector<std::string> names;
  for (int i = 0; i < kSmallFiles; ++i) names.push_back("small\\f" + std::to_string(i) + ".bin");
  for (auto _ : state) world.Curl(names, world.root / "curl-small");
  std::error_code error;
  if (fs::file_size(world.root / "curl-small/c1999", error) != kSmallSize) {
    state.SkipWithError("curl did not fetch the files");
    return;
  }
  CountFilesPerSecond(state, kSmallFiles);
}

void BM_ClientLargeFile(benchmark::State& state) {
  World& world = TheWorld();
  std::int64_t size = LargeBytes();
  for (auto _ : state) {
    std::error_code error;
    fs::remove(world.Local("large.bin"), error);
    fs::create_directories(fs::path(world.Local("large.bin")).parent_path());
    AsyncFileDownloader downloader;
    if (!downloader.DownloadFile(Item(world.Local("large.bin"), size))) {
      state.SkipWithError("the download failed");
      return;
    }
  }
  state.SetBytesProcessed(size * state.iterations());
  state.counters["peak_MB"] = PeakMegabytes();
}

void BM_CurlLargeFile(benchmark::State& state) {
  World& world = TheWorld();
  for (auto _ : state) world.Curl({"large.bin"}, world.root / "curl-large");
  std::error_code error;
  if (static_cast<std::int64_t>(fs::file_size(world.root / "curl-large/c0", error)) != LargeBytes()) {
    state.SkipWithError("curl did not fetch the whole file");
    return;
  }
  state.SetBytesProcessed(LargeBytes() * state.iterations());
}

}  // namespace

BENCHMARK(BM_ClientSmallFiles)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CurlSmallFiles)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_ClientLargeFile)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();
BENCHMARK(BM_CurlLargeFile)->Unit(benchmark::kMillisecond)->Iterations(1)->UseRealTime();

BENCHMARK_MAIN();
