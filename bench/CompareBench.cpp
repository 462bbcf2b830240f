// The comparison of one storage of 100,000 items: the record of the last sync,
// a listing and a local tree that agree, then a listing in which every file
// changed on the server, then the first pass's scan of the local tree.
// Run on demand: compare_bench [--benchmark_filter=...].

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "CVConfiguration.h"
#include "CVSelectiveSync.h"
#include "CVStaticHelpers.h"
#include "SERVER_Queues.h"
#include "ServerXMLParser.h"

namespace {

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 999;  // with the folders: 100,000 items
constexpr std::int64_t kTime = 1700000000;

// A listing handed in as the server would give it.
class BenchQueues : public SERVER_Queues {
 public:
  StorageListing ListStorage(CVSharepoint&) override { return {}; }
  void Load(const std::vector<CVFileForCompare>& lines) {
    std::lock_guard<std::mutex> lock(SQ_NFQ_Lock);
    NFSQ_ServerQueue = lines;
  }
};

struct World {
  std::string home;
  std::vector<CVFileForCompare> inStep;    // what the record holds
  std::vector<CVFileForCompare> changed;   // every file one byte longer on the server
};

World* world = nullptr;

void WriteSmallFile(const std::string& path, std::int64_t size) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  std::string bytes(static_cast<std::size_t>(size), 'x');
  if (::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    ::close(fd);
    throw std::runtime_error("cannot write " + path);
  }
  struct timespec times[2] = {{kTime, 0}, {kTime, 0}};
  ::futimens(fd, times);
  ::close(fd);
}

void BuildWorld() {
  world = new World;
  world->home = bench::TemporaryHome();
  CVSelectiveSync::ResetForTests();

  auto site = std::make_shared<CVSharepoint>();
  site->Name = "Docs";
  CVConfiguration::Instance().fSpSites.push_back(site);
  const std::string root = CVStaticHelpers::GenerateRootPath();
  CVSelectiveSync::Instance().GetSiteRulesByName("Docs", true)->addSyncRule(1, root + "/Docs");

  for (int folder = 0; folder < kFolders; ++folder) {
    const std::string folderPath = root + "/Docs/folder-" + std::to_string(folder);
    std::filesystem::create_directories(folderPath);
    CVFileForCompare entry;
    entry.localPath = folderPath;
    entry.isFolder = true;
    entry.site = "Docs";
    world->inStep.push_back(entry);
    for (int file = 0; file < kFilesPerFolder; ++file) {
      CVFileForCompare line;
      line.localPath = folderPath + "/document number " + std::to_string(file) + ".txt";
      line.size = 1 + file % 7;
      line.modifiedTime = kTime;
      line.site = "Docs";
      WriteSmallFile(line.localPath, line.size);
      world->inStep.push_back(line);
    }
  }
  world->changed = world->inStep;
  for (auto& line : world->changed) {
    if (!line.isFolder) line.size += 1;
  }
  if (!ServerXMLParser::saveDownloadedXML(world->inStep)) throw std::runtime_error("cannot save the record");

  // The first comparison also makes the file manager's clone of every item;
  // it is timed once here, the benchmarks then measure the comparison itself.
  BenchQueues queues;
  queues.firstTimeSyncPerformed = true;
  queues.Load(world->inStep);
  auto start = std::chrono::steady_clock::now();
  queues.FilterNFQ("Docs");
  auto took = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
  std::fprintf(stderr, "first comparison of %zu items, clones made: %lld ms\n", world->inStep.size(),
               static_cast<long long>(took.count()));
}

void RunFilter(benchmark::State& state, const std::vector<CVFileForCompare>& lines, bool firstPass,
               std::size_t expectedItems) {
  BenchQueues queues;
  queues.firstTimeSyncPerformed = !firstPass;
  for (auto _ : state) {
    state.PauseTiming();
    queues.Load(lines);
    state.ResumeTiming();
    queues.FilterNFQ("Docs");
    state.PauseTiming();
    if (queues.siteOffline || queues.ServerQueueSize() != expectedItems) {
      state.SkipWithError("unexpected work list");
      break;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(lines.size()));
}

void BM_FilterNFQ_InStep(benchmark::State& state) {
  RunFilter(state, world->inStep, false, world->inStep.size());
}
void BM_FilterNFQ_AllChangedOnServer(benchmark::State& state) {
  RunFilter(state, world->changed, false, world->changed.size());
}
void BM_FilterNFQ_FirstPassScan(benchmark::State& state) {
  RunFilter(state, world->inStep, true, world->inStep.size());
}

}  // namespace

BENCHMARK(BM_FilterNFQ_InStep)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_FilterNFQ_AllChangedOnServer)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_FilterNFQ_FirstPassScan)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

int main(int argc, char** argv) {
  return bench::RunOverWorld(argc, argv, "compare_bench", [] {
    BuildWorld();
    return std::filesystem::path(world->home);
  });
}
