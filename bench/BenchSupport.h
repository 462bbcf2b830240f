#pragma once
// What the transfer benchmarks share: the size of the large file, the peak
// memory of the process, and quoting for curl's configuration files.

#include <sys/resource.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace bench {

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
