#pragma once
// What the benchmarks share: a temporary home and the main of a benchmark over
// a world made once, the files-per-second counter, the size of the large file,
// the peak memory of the process, and quoting for curl's configuration files.

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVHandler.h"

namespace bench {

// A new empty folder under the temporary folder, made the process's HOME, with
// the logs kept off the console and the configuration empty.
inline std::filesystem::path TemporaryHome() {
  std::string pattern = (std::filesystem::temp_directory_path() / "cvbench-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  ::setenv("HOME", pattern.c_str(), 1);
  CVEventLogger::SetConsoleEcho(false);
  CVConfiguration::ResetForTests();
  return pattern;
}

// The main of a benchmark whose runs share a world: build makes it once and
// gives the folder that holds it, which goes when the runs are over.
inline int RunOverWorld(int argc, char** argv, const char* name, const std::function<std::filesystem::path()>& build) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::filesystem::path folder;
  try {
    folder = build();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  return 0;
}

// A file of `bytes` bytes of a fixed pattern, each MiB stamped with its offset
// so that no two parts of it have the same hash.
inline void WriteLargeFile(const std::filesystem::path& path, std::int64_t bytes) {
  std::ofstream large(path, std::ios::binary);
  std::string chunk(1 << 20, '\0');
  for (std::size_t i = 0; i < chunk.size(); ++i) chunk[i] = static_cast<char>(i * 131 + 7);
  for (std::int64_t written = 0; written < bytes; written += static_cast<std::int64_t>(chunk.size())) {
    std::memcpy(chunk.data(), &written, sizeof written);
    large.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
  }
}

// The account bench:bench on the server at baseUrl with its storage "Bench" at
// location; gives the storage's token.
inline std::string UseBenchAccount(const std::string& baseUrl, const std::string& location) {
  CVConfiguration& config = CVConfiguration::Instance();
  config.Corvalink.Url = baseUrl;
  config.Corvalink.UserName = "bench";
  config.Corvalink.Password = "bench";
  auto site = std::make_shared<CVSharepoint>();
  site->Name = "Bench";
  site->Url = location;
  site->StorageType = "CIFS";
  config.fSpSites.push_back(site);
  return CVHandler::Instance().CheckCVToken("Bench");
}

// The rate of files handled over all iterations.
inline void CountFilesPerSecond(benchmark::State& state, int files) {
  state.counters["files_per_second"] = benchmark::Counter(
      static_cast<double>(files) * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}

// CV_BENCH_LARGE_MB, 1024 by default.
inline std::int64_t LargeBytes() {
  const char* text = std::getenv("CV_BENCH_LARGE_MB");
  long megabytes = text ? std::atol(text) : 1024;
  return static_cast<std::int64_t>(megabytes > 0 ? megabytes : 1024) * 1024 * 1024;
}

inline double PeakMegabytes(int who = RUSAGE_SELF) {
  rusage usage{};
  getrusage(who, &usage);
  return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// A text inside double quotes of a curl configuration file, where "\" escapes.
inline std::string ConfigQuoted(const std::string& text) {
  std::string quoted;
  for (char c : text) {
    if (c == '\\' || c == '"') quoted += '\\';
    quoted += c;
  }
  return quoted;
}

}  // namespace bench
