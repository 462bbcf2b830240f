// The record of the last sync at the size of a large storage: writing and reading
// DownloadedFiles.xml with 100,000 records, and one change to it (read, change,
// write), which each finished transfer pays.
// Run on demand: record_bench [--benchmark_filter=...].

#include <benchmark/benchmark.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "AsyncFileCommonPart.h"
#include "BenchSupport.h"
#include "CVStaticHelpers.h"
#include "ServerXMLParser.h"

namespace {

constexpr int kFolders = 100;
constexpr int kFilesPerFolder = 999;  // with the folders: 100,000 records
constexpr std::int64_t kTime = 1700000000;

struct World {
  std::string home;
  std::vector<CVFileForCompare> records;
};

World* world = nullptr;

void BuildWorld() {
  world = new World;
  world->home = bench::TemporaryHome();
  const std::string root = CVStaticHelpers::GenerateRootPath();
  std::filesystem::create_directories(root + "/.Settings");
  for (int folder = 0; folder < kFolders; ++folder) {
    CVFileForCompare entry;
    entry.localPath = root + "/Docs/folder-" + std::to_string(folder);
    entry.isFolder = true;
    world->records.push_back(entry);
    for (int file = 0; file < kFilesPerFolder; ++file) {
      CVFileForCompare line;
      line.localPath = entry.localPath + "/document n\xC2\xB0 " + std::to_string(file) + " & notes.txt";
      line.size = 1000 + file;
      line.modifiedTime = kTime + file;
      line.statusChangeTime = kTime;
      line.fileStatus = file % 2;
      world->records.push_back(line);
    }
  }
  if (!ServerXMLParser::saveDownloadedXML(world->records)) throw std::runtime_error("cannot save the record");
  std::fprintf(stderr, "DownloadedFiles.xml: %zu records, %ju bytes\n", world->records.size(),
               static_cast<std::uintmax_t>(std::filesystem::file_size(CVStaticHelpers::GenerateDownloadedXMLPath())));
}

void BM_SaveDownloadedXML(benchmark::State& state) {
  for (auto _ : state) {
    if (!ServerXMLParser::saveDownloadedXML(world->records)) {
      state.SkipWithError("save failed");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(world->records.size()));
}

void BM_ReadDownloadedFiles(benchmark::State& state) {
  for (auto _ : state) {
    ServerXMLParser parser;
    auto read = parser.readDownloadedFiles();
    if (!read || read->size() != world->records.size()) {
      state.SkipWithError("read gave another record count");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(world->records.size()));
}

// What a finished download costs the record: its one record rewritten.
void BM_WriteOneRecord(benchmark::State& state) {
  CVFileWithAction file;
  file.nFilePath = world->records[world->records.size() / 2].localPath;
  file.fileSize = 42;
  file.dateModified = kTime;
  for (auto _ : state) {
    if (!AsyncFileCommonPart::WriteToDownloadedFiles(file, false)) {
      state.SkipWithError("write failed");
      break;
    }
  }
}

}  // namespace

BENCHMARK(BM_SaveDownloadedXML)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_ReadDownloadedFiles)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
BENCHMARK(BM_WriteOneRecord)->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);

int main(int argc, char** argv) {
  return bench::RunOverWorld(argc, argv, "record_bench", [] {
    BuildWorld();
    return std::filesystem::path(world->home);
  });
}
