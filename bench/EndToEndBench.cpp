// The real binaries end to end: corvalink-devserver and corvalink-sync --headless
// as processes on loopback, at the normal time scale, beside curl fetching and
// sending the same files from and to the same server in the same run.
//
//   FirstSyncThenPassInStep/files:N/in_step:0  a fresh client fills its folder
//                  with N small files (--once)
//   FirstSyncThenPassInStep/files:N/in_step:1  the next --once over the same N
//                  files, all in step
//   FirstUpload/files:N  a fresh client sends N small files it finds in its folder (--once)
//   CopiedIn/files:N     N small files moved into the folder of a running client,
//                  until the server holds them (the watcher waits 5 quiet seconds)
//   Idle/files:N   a running client in step over N files: CPU and wake-ups
//   Large*         one large file down, up in one request, up in parts, and up
//                  resumed after a kill -9 with half of the parts on the server
//
// Counters: files or MiB per second, the client's CPU seconds and peak memory,
// the bytes its logs grew by, and the same rate of curl with the ratio to it.
// Run on demand: e2e_bench [--benchmark_filter=...]. CV_BENCH_FILES lists the
// counts of small files (default "1000,10000"; add 100000 for the largest run),
// CV_BENCH_LARGE_MB the large file's size (1024), CV_BENCH_IDLE_SECONDS the idle
// watch (60); with CV_BENCH_KEEP set the folders of the runs stay (their paths on stderr).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "CVConfiguration.h"
#include "CVHandler.h"
#include "CVTextEscaping.h"

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

extern char** environ;

namespace {

constexpr std::size_t kSmallSize = 4096;
constexpr int kFolders = 20;

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

// A process of the bench: started with its output in a file, reaped with its
// resource use (CPU, peak memory).
class Process {
 public:
  Process(const std::vector<std::string>& argv, const std::map<std::string, std::string>& env,
          const fs::path& output) {
    std::vector<std::string> environment;
    for (char** e = environ; *e; ++e) {
      std::string entry = *e;
      if (!env.count(entry.substr(0, entry.find('=')))) environment.push_back(entry);
    }
    for (const auto& [key, value] : env) environment.push_back(key + "=" + value);
    std::vector<char*> args, envp;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    for (const auto& e : environment) envp.push_back(const_cast<char*>(e.c_str()));
    envp.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    started_ = Clock::now();
    if (posix_spawn(&pid_, argv[0].c_str(), &actions, nullptr, args.data(), envp.data()) != 0) {
      throw std::runtime_error("cannot start " + argv[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Process() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      Wait();
    }
  }
  pid_t pid() const { return pid_; }
  void Signal(int signal) { ::kill(pid_, signal); }
  // The exit code (-signal when killed).
  int Wait() {
    int status = 0;
    ::wait4(pid_, &status, 0, &usage_);
    ended_ = Clock::now();
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  double wall() const { return Seconds(ended_ - started_); }
  double cpu() const {
    return usage_.ru_utime.tv_sec + usage_.ru_utime.tv_usec / 1e6 + usage_.ru_stime.tv_sec +
           usage_.ru_stime.tv_usec / 1e6;
  }
  double peakMB() const { return usage_.ru_maxrss / 1024.0; }

 private:
  pid_t pid_ = -1;
  rusage usage_{};
  Clock::time_point started_, ended_;
};

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

bool WaitUntil(const std::function<bool()>& condition, std::chrono::seconds limit,
               std::chrono::milliseconds step = 100ms) {
  const auto end = Clock::now() + limit;
  while (Clock::now() < end) {
    if (condition()) return true;
    std::this_thread::sleep_for(step);
  }
  return condition();
}

// The client takes a file changed in the last two seconds for one still being
// written and waits for it to be quiet; files made for a benchmark wait that out first.
void LetFilesSettle() { std::this_thread::sleep_for(2500ms); }

std::size_t CountFiles(const fs::path& folder, const std::string& suffix = ".bin") {
  std::size_t count = 0;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    const std::string name = it->path().filename().string();
    if (it->is_regular_file(error) && name.front() != '.' && name.ends_with(suffix)) ++count;
  }
  return count;
}

std::uintmax_t TreeBytes(const fs::path& folder) {
  std::uintmax_t bytes = 0;
  std::error_code error;
  for (auto it = fs::recursive_directory_iterator(folder, error); !error && it != fs::recursive_directory_iterator();
       it.increment(error)) {
    if (it->is_regular_file(error)) bytes += it->file_size(error);
  }
  return bytes;
}

std::string SmallName(int i) {
  char name[32];
  std::snprintf(name, sizeof name, "d%02d/f%06d.bin", i % kFolders, i);
  return name;
}

void WriteSmallFiles(const fs::path& folder, int count) {
  std::string block(kSmallSize, '\0');
  for (int i = 0; i < count; ++i) {
    for (std::size_t b = 0; b < block.size(); ++b) block[b] = static_cast<char>(b * 31 + static_cast<std::size_t>(i));
    const fs::path path = folder / SmallName(i);
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << block;
  }
}

// The local server as a process, over the storage "Bench".
struct Server {
  fs::path folder, state, log;
  std::unique_ptr<Process> process;
  std::string baseUrl;
  std::string token;

  Server(const fs::path& root, const std::vector<std::string>& extra = {}) : folder(root / "server/Bench") {
    state = root / "server-state";
    log = root / "server.log";
    fs::create_directories(folder);
    std::vector<std::string> argv{CORVALINK_DEVSERVER_BINARY, "--listen", "127.0.0.1:0", "--user", "bench:bench",
                                  "--storage", "Bench=" + folder.string(), "--state", state.string()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    process = std::make_unique<Process>(argv, std::map<std::string, std::string>{}, log);
    std::smatch match;
    WaitUntil([&] {
      std::string text = ReadAll(log);
      if (!std::regex_search(text, match, std::regex("listening on (http://[^ \\n/]+/)"))) return false;
      baseUrl = match[1];
      return true;
    }, 10s, 20ms);
    if (baseUrl.empty()) throw std::runtime_error("the server did not start: " + ReadAll(log));
    // curl's token, got by the client's own session calls against this server.
    CVConfiguration::ResetForTests();
    CVHandler::ResetForTests();
    token = bench::UseBenchAccount(baseUrl, "\\\\devserver\\Bench\\");
    if (token.empty() || token.rfind("err", 0) == 0) throw std::runtime_error("no token from the server");
  }
  ~Server() {
    process->Signal(SIGTERM);
    process->Wait();
  }
  std::string ServerPath(const std::string& relative) const {
    std::string path = "\\\\devserver\\Bench\\" + relative;
    for (char& c : path) {
      if (c == '/') c = '\\';
    }
    return path;
  }
};

// A client's home with the account and the storage synced whole.
fs::path ClientHome(const fs::path& root, const std::string& name, const Server& server) {
  const fs::path home = root / name;
  const fs::path settings = home / "Corvalink/.Settings";
  fs::create_directories(settings);
  fs::permissions(settings, fs::perms::owner_all, fs::perm_options::replace);
  std::ofstream(settings / "Configuration.xml")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Configuration xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\" "
         "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\">\n  <Corvalink><Url>"
      << server.baseUrl
      << "</Url><UserName>bench</UserName><Password>bench</Password><IsFirstRun>false</IsFirstRun><SyncCV>0</SyncCV>"
         "</Corvalink>\n  <SpSites><CVSharepoint><Url>\\\\devserver\\Bench\\</Url><Name>Bench</Name>"
         "<StorageType>CIFS</StorageType></CVSharepoint></SpSites>\n</Configuration>\n";
  std::ofstream(settings / "SelectiveSync.xml")
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<SelectiveSync><Sites><StorageRules><Name>Bench</Name><SyncRules>"
         "<SyncRule><ItemUrl>Bench</ItemUrl><Rule>syncAll</Rule></SyncRule></SyncRules><SyncItems/></StorageRules>"
         "</Sites></SelectiveSync>\n";
  fs::create_directories(home / "Corvalink/Bench");
  return home;
}

std::unique_ptr<Process> StartClient(const fs::path& home, bool once) {
  std::vector<std::string> argv{CORVALINK_SYNC_BINARY, "--headless"};
  if (once) argv.push_back("--once");
  return std::make_unique<Process>(
      argv,
      std::map<std::string, std::string>{{"HOME", home.string()},
                                         {"XDG_DATA_HOME", (home / ".local/share").string()},
                                         {"XDG_CONFIG_HOME", (home / ".config").string()}},
      home / ("client-" + std::to_string(Clock::now().time_since_epoch().count()) + ".out"));
}

fs::path LogFolder(const fs::path& home) { return home / "Corvalink/.Settings/CVLogger"; }
fs::path Storage(const fs::path& home) { return home / "Corvalink/Bench"; }

// curl over many requests in one process, as a configuration file.
double RunCurl(const fs::path& config) {
  const auto begun = Clock::now();
  const std::string command = "curl -K '" + config.string() + "'";
  if (std::system(command.c_str()) != 0) throw std::runtime_error("curl failed");
  return Seconds(Clock::now() - begun);
}

double CurlDownload(const Server& server, const std::vector<std::string>& relative, const fs::path& into) {
  fs::create_directories(into);
  const fs::path config = into.parent_path() / "curl-down.cfg";
  {
    std::ofstream out(config);
    for (std::size_t i = 0; i < relative.size(); ++i) {
      if (i) out << "next\n";
      out << "url = \"" << server.baseUrl << "DownloadStorageFile.ashx\"\n"
          << "data = \"token=" << server.token << "\"\n"
          << "data-urlencode = \"path=" << bench::ConfigQuoted(server.ServerPath(relative[i])) << "\"\n"
          << "fail\nsilent\nshow-error\n"
          << "output = \"" << (into / ("c" + std::to_string(i))).string() << "\"\n";
    }
  }
  return RunCurl(config);
}

double CurlUpload(const Server& server, const std::vector<std::pair<fs::path, std::string>>& files,
                  const fs::path& work) {
  const fs::path config = work / "curl-up.cfg";
  {
    std::ofstream out(config);
    for (std::size_t i = 0; i < files.size(); ++i) {
      const auto& [local, relative] = files[i];
      const bool large = fs::file_size(local) > (64u << 20);
      if (i) out << "next\n";
      out << "url = \"" << server.baseUrl << "UploadStorageFile.ashx?token="
          << CVTextEscaping::URLEncodedString(server.token)
          << "&path=" << CVTextEscaping::URLEncodedString(server.ServerPath(relative))
          << "&Length=" << fs::file_size(local) << "\"\n"
          // curl reads a small body into memory and streams a large one from disk.
          << (large ? "upload-file = \"" : "data-binary = \"@") << bench::ConfigQuoted(local.string()) << "\"\n"
          << "request = \"POST\"\nheader = \"Content-Type: application/octet-stream\"\n"
          << "fail\nsilent\nshow-error\noutput = \"/dev/null\"\n";
    }
  }
  return RunCurl(config);
}

std::vector<int> FileCounts() {
  const char* text = std::getenv("CV_BENCH_FILES");
  std::vector<int> counts;
  std::stringstream list(text ? text : "1000,10000");
  for (std::string item; std::getline(list, item, ',');) {
    if (std::atoi(item.c_str()) > 0) counts.push_back(std::atoi(item.c_str()));
  }
  return counts;
}

// One folder per benchmark, removed afterwards (kept, and named, with CV_BENCH_KEEP set).
struct Scratch {
  fs::path root;
  Scratch() {
    std::string pattern = (fs::temp_directory_path() / "cv-e2e-bench-XXXXXX").string();
    if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    root = pattern;
  }
  ~Scratch() {
    if (std::getenv("CV_BENCH_KEEP")) {
      std::fprintf(stderr, "kept: %s\n", root.c_str());
      return;
    }
    std::error_code error;
    fs::remove_all(root, error);
  }
};

void Report(benchmark::State& state, const Process& client, double seconds, double units, const char* unit,
            double curlSeconds, const fs::path& home, std::uintmax_t logBefore = 0) {
  state.SetIterationTime(seconds);
  state.counters[std::string(unit) + "_per_s"] = units / seconds;
  state.counters["cpu_s"] = client.cpu();
  state.counters["peak_MB"] = client.peakMB();
  state.counters["log_KB"] = static_cast<double>(TreeBytes(LogFolder(home)) - logBefore) / 1024.0;
  if (curlSeconds > 0) {
    state.counters[std::string("curl_") + unit + "_per_s"] = units / curlSeconds;
    state.counters["of_curl_pct"] = 100.0 * curlSeconds / seconds;
  }
}

// --- Small files ---

void BM_FirstSyncThenPassInStep(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const bool inStep = state.range(1) != 0;
  Scratch scratch;
  Server server(scratch.root);
  WriteSmallFiles(server.folder, n);
  const fs::path home = ClientHome(scratch.root, "home", server);
  for (auto _ : state) {
    auto first = StartClient(home, true);
    const int code = first->Wait();
    if (code != 0 || CountFiles(Storage(home)) != static_cast<std::size_t>(n)) {
      state.SkipWithError(("the first sync ended with " + std::to_string(code) + ", " +
                           std::to_string(CountFiles(Storage(home))) + " files")
                              .c_str());
      return;
    }
    if (!inStep) {
      std::vector<std::string> names;
      for (int i = 0; i < n; ++i) names.push_back(SmallName(i));
      const double curl = CurlDownload(server, names, scratch.root / "curl");
      Report(state, *first, first->wall(), n, "files", curl, home);
      continue;
    }
    const std::uintmax_t logBefore = TreeBytes(LogFolder(home));
    auto again = StartClient(home, true);
    if (again->Wait() != 0) {
      state.SkipWithError("the pass in step did not end in step");
      return;
    }
    Report(state, *again, again->wall(), n, "files", 0, home, logBefore);
  }
}

void BM_FirstUpload(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Scratch scratch;
  Server server(scratch.root);
  // A storage that lists nothing counts as one that could not be listed.
  std::ofstream(server.folder / "marker.txt") << "marker";
  const fs::path home = ClientHome(scratch.root, "home", server);
  WriteSmallFiles(Storage(home), n);
  LetFilesSettle();
  for (auto _ : state) {
    auto client = StartClient(home, true);
    const int code = client->Wait();
    if (code != 0 || CountFiles(server.folder) != static_cast<std::size_t>(n)) {
      state.SkipWithError(("the upload ended with " + std::to_string(code) + ", " +
                           std::to_string(CountFiles(server.folder)) + " files on the server")
                              .c_str());
      return;
    }
    std::vector<std::pair<fs::path, std::string>> files;
    for (int i = 0; i < n; ++i) files.emplace_back(Storage(home) / SmallName(i), "curl/" + SmallName(i));
    fs::create_directories(server.folder / "curl");
    const double curl = CurlUpload(server, files, scratch.root);
    Report(state, *client, client->wall(), n, "files", curl, home);
  }
}

void BM_CopiedIn(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  Scratch scratch;
  Server server(scratch.root);
  std::ofstream(server.folder / "marker.txt") << "marker";
  const fs::path home = ClientHome(scratch.root, "home", server);
  const fs::path staging = scratch.root / "staging";
  WriteSmallFiles(staging, n);
  for (auto _ : state) {
    auto client = StartClient(home, false);
    if (!WaitUntil([&] { return fs::exists(Storage(home) / "marker.txt"); }, 60s)) {
      state.SkipWithError("the client did not reach the server");
      return;
    }
    std::this_thread::sleep_for(2s);
    const auto moved = Clock::now();
    for (int f = 0; f < kFolders && f < n; ++f) {
      const std::string folder = SmallName(f).substr(0, 3);
      fs::rename(staging / folder, Storage(home) / folder);
    }
    if (!WaitUntil([&] { return CountFiles(server.folder) >= static_cast<std::size_t>(n); }, 3600s, 500ms)) {
      state.SkipWithError("the files did not all reach the server");
      return;
    }
    const double seconds = Seconds(Clock::now() - moved);
    client->Signal(SIGTERM);
    client->Wait();
    std::vector<std::pair<fs::path, std::string>> files;
    for (int i = 0; i < n; ++i) files.emplace_back(Storage(home) / SmallName(i), "curl/" + SmallName(i));
    const double curl = CurlUpload(server, files, scratch.root);
    Report(state, *client, seconds, n, "files", curl, home);
  }
}

void BM_Idle(benchmark::State& state) {
  const int n = static_cast<int>(state.range(0));
  const char* text = std::getenv("CV_BENCH_IDLE_SECONDS");
  const int watch = text && std::atoi(text) > 0 ? std::atoi(text) : 60;
  Scratch scratch;
  Server server(scratch.root);
  WriteSmallFiles(server.folder, n);
  const fs::path home = ClientHome(scratch.root, "home", server);
  if (StartClient(home, true)->Wait() != 0) {
    state.SkipWithError("the first sync failed");
    return;
  }
  for (auto _ : state) {
    auto client = StartClient(home, false);
    // Past the start and the first pass, then watched.
    std::this_thread::sleep_for(5s);
    auto sample = [&] {
      long ticks = 0, switches = 0;
      std::ifstream stat("/proc/" + std::to_string(client->pid()) + "/stat");
      std::string field;
      for (int i = 1; i <= 15 && stat >> field; ++i) {
        if (i == 14 || i == 15) ticks += std::atol(field.c_str());
      }
      for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(client->pid()) + "/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);) {
          if (line.rfind("voluntary_ctxt_switches:", 0) == 0) switches += std::atol(line.c_str() + 24);
        }
      }
      return std::make_pair(ticks, switches);
    };
    const std::uintmax_t logBefore = TreeBytes(LogFolder(home));
    const auto before = sample();
    std::this_thread::sleep_for(std::chrono::seconds(watch));
    const auto after = sample();
    const double minutes = watch / 60.0;
    state.SetIterationTime(watch);
    state.counters["cpu_s_per_min"] = (after.first - before.first) / static_cast<double>(sysconf(_SC_CLK_TCK)) / minutes;
    state.counters["wakeups_per_min"] = (after.second - before.second) / minutes;
    state.counters["log_KB_per_min"] = static_cast<double>(TreeBytes(LogFolder(home)) - logBefore) / 1024.0 / minutes;
    client->Signal(SIGTERM);
    client->Wait();
    state.counters["peak_MB"] = client->peakMB();
  }
}

// --- One large file ---

std::int64_t LargeBytes() { return bench::LargeBytes(); }

void BM_LargeDown(benchmark::State& state) {
  Scratch scratch;
  Server server(scratch.root);
  bench::WriteLargeFile(server.folder / "large.bin", LargeBytes());
  const fs::path home = ClientHome(scratch.root, "home", server);
  for (auto _ : state) {
    auto client = StartClient(home, true);
    if (client->Wait() != 0 || fs::file_size(Storage(home) / "large.bin") != static_cast<std::uintmax_t>(LargeBytes())) {
      state.SkipWithError("the download failed");
      return;
    }
    const double curl = CurlDownload(server, {"large.bin"}, scratch.root / "curl");
    Report(state, *client, client->wall(), LargeBytes() / 1048576.0, "MiB", curl, home);
  }
}

// kind: 0 one request, 1 in parts, 2 in parts resumed from half after a kill -9.
void BM_LargeUp(benchmark::State& state) {
  const int kind = static_cast<int>(state.range(0));
  Scratch scratch;
  std::vector<std::string> extra{"--part-size", "4096"};
  if (kind == 0) extra = {"--version-reply", "5.0.0"};
  Server server(scratch.root, extra);
  std::ofstream(server.folder / "marker.txt") << "marker";
  const fs::path home = ClientHome(scratch.root, "home", server);
  bench::WriteLargeFile(Storage(home) / "large.bin", LargeBytes());
  LetFilesSettle();
  const std::int64_t parts = (LargeBytes() + (4096 << 10) - 1) / (4096 << 10);
  for (auto _ : state) {
    if (kind == 2) {
      auto first = StartClient(home, true);
      WaitUntil([&] { return static_cast<std::int64_t>(CountFiles(server.state, ".part")) >= parts / 2; }, 600s, 5ms);
      first->Signal(SIGKILL);
      first->Wait();
      state.counters["parts_before"] = static_cast<double>(CountFiles(server.state, ".part"));
    }
    auto client = StartClient(home, true);
    if (client->Wait() != 0 ||
        fs::file_size(server.folder / "large.bin") != static_cast<std::uintmax_t>(LargeBytes())) {
      state.SkipWithError("the upload failed");
      return;
    }
    fs::create_directories(server.folder / "curl");
    const double curl = CurlUpload(server, {{Storage(home) / "large.bin", "curl/large.bin"}}, scratch.root);
    Report(state, *client, client->wall(), LargeBytes() / 1048576.0, "MiB", curl, home);
  }
}

void SmallFileArguments(benchmark::internal::Benchmark* b) {
  for (int n : FileCounts()) b->Arg(n);
}

void PassArguments(benchmark::internal::Benchmark* b) {
  for (int n : FileCounts()) {
    b->Args({n, 0});
    b->Args({n, 1});
  }
}

}  // namespace

BENCHMARK(BM_FirstSyncThenPassInStep)->Apply(PassArguments)->ArgNames({"files", "in_step"})
    ->Unit(benchmark::kSecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_FirstUpload)->Apply(SmallFileArguments)->ArgName("files")->Unit(benchmark::kSecond)->Iterations(1)
    ->UseManualTime();
BENCHMARK(BM_CopiedIn)->Apply(SmallFileArguments)->ArgName("files")->Unit(benchmark::kSecond)->Iterations(1)
    ->UseManualTime();
BENCHMARK(BM_Idle)->Apply(SmallFileArguments)->ArgName("files")->Unit(benchmark::kSecond)->Iterations(1)
    ->UseManualTime();
BENCHMARK(BM_LargeDown)->Unit(benchmark::kSecond)->Iterations(1)->UseManualTime();
BENCHMARK(BM_LargeUp)->Arg(0)->Arg(1)->Arg(2)->ArgName("one_parts_resumed")->Unit(benchmark::kSecond)
    ->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  const fs::path home = bench::TemporaryHome();  // the bench's own login for curl's token keeps its files here
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  std::error_code error;
  fs::remove_all(home, error);
  return 0;
}
