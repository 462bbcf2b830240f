// kill -9 at random moments of a first sync and of an upload of many files:
// after each restart nothing is lost, nothing the client had recorded goes over
// the wire again, and in the end both trees are the same. `make test` runs 1,000
// files and 5 kills; CV_CRASH_FILES and CV_CRASH_KILLS set the counts (the full
// run: 5000 and 20).

#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "DownloadedFilesStore.h"
#include "E2EFixture.h"
#include "ServerXMLParser.h"

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

int Count(const char* variable, int fallback) {
  const char* value = getenv(variable);
  return value && atoi(value) > 0 ? atoi(value) : fallback;
}
const int kFiles = Count("CV_CRASH_FILES", 1000);
const int kKills = Count("CV_CRASH_KILLS", 5);

std::string Name(int i) { return "d" + std::to_string(i % 20) + "/f" + std::to_string(i) + ".txt"; }
std::string Content(int i) { return "content of file " + std::to_string(i) + "\n"; }

}  // namespace

class CrashTest : public E2ETest {
 protected:
  // The files a killed client had recorded in step (relative to Docs), read
  // from hard links of its record in a home of the test's own: the read folds
  // the journal there and leaves the client's files as the kill left them.
  std::set<std::string> Recorded(const std::string& home) {
    const fs::path settings = fs::path(home) / "Corvalink/.Settings";
    const fs::path scratch = root_ / "record-reader";
    fs::remove_all(scratch);
    fs::create_directories(scratch / "Corvalink/.Settings");
    std::error_code missing;
    fs::create_hard_link(settings / "DownloadedFiles.xml", scratch / "Corvalink/.Settings/DownloadedFiles.xml", missing);
    fs::copy_file(settings / "DownloadedFiles.xml.journal", scratch / "Corvalink/.Settings/DownloadedFiles.xml.journal",
                  missing);
    const std::string previous = getenv("HOME") ? getenv("HOME") : "";
    setenv("HOME", scratch.c_str(), 1);
    DownloadedFilesStore::Instance().Forget();
    auto records = ServerXMLParser().readDownloadedFiles();
    DownloadedFilesStore::Instance().Forget();
    setenv("HOME", previous.c_str(), 1);
    std::set<std::string> recorded;
    const std::string docs = ClientDocs(home).string() + "/";
    for (const auto& record : records.value_or(std::vector<CVFileForCompare>{})) {
      if (!record.isFolder && !record.brokeDownload && record.localPath.rfind(docs, 0) == 0) {
        recorded.insert(record.localPath.substr(docs.size()));
      }
    }
    return recorded;
  }

  // The files a handler moved, from the server's lines after line `from`.
  std::vector<std::string> Transfers(const std::string& handler, std::size_t from) {
    std::vector<std::string> paths;
    std::istringstream lines(server_->Output());
    const std::string prefix = "POST " + handler + " path=\\\\devserver\\Docs\\";
    std::size_t n = 0;
    for (std::string line; std::getline(lines, line); ++n) {
      if (n < from || line.rfind(prefix, 0) != 0) continue;
      std::string path = line.substr(prefix.size(), line.find(" Range=") - prefix.size());
      for (char& c : path) {
        if (c == '\\') c = '/';
      }
      paths.push_back(path);
    }
    return paths;
  }

  std::size_t ServerLines() {
    const std::string output = server_->Output();
    return static_cast<std::size_t>(std::count(output.begin(), output.end(), '\n'));
  }

  // Kills the client at random moments: after a random number of transfers
  // (none: while it starts and lists) and a random few milliseconds more, so
  // that kills fall into transfers, landings and journal writes alike, and about
  // half of the files go before the last start. After each kill, what stands
  // under a final name is whole, and what the record held is never moved again.
  void KillAtRandomMoments(const std::string& home, const char* handler,
                           const std::function<void()>& nothingLost) {
    std::mt19937 random(20);  // the same moments at every run
    std::uniform_int_distribution<std::size_t> transfers(0, static_cast<std::size_t>(kFiles / kKills));
    std::uniform_int_distribution<int> more(0, 150);
    std::vector<std::pair<std::size_t, std::set<std::string>>> kills;
    for (int kill = 0; kill < kKills; ++kill) {
      SCOPED_TRACE("kill " + std::to_string(kill));
      const std::size_t from = ServerLines();
      const std::size_t target = transfers(random);
      auto client = StartClient(home);
      // A client that has nothing left to move is killed all the same.
      WaitFor([&] { return Transfers(handler, from).size() >= target; }, 30s);
      std::this_thread::sleep_for(std::chrono::milliseconds(more(random)));
      client->Signal(SIGKILL);
      client->Wait(10s);
      nothingLost();
      kills.emplace_back(ServerLines(), Recorded(home));
    }
    auto client = StartClient(home);
    ASSERT_TRUE(WaitFor([&] {
      return client->CountExactLines("Status: in step") > 0 && Tree(ServerDocs()) == Tree(ClientDocs(home));
    }, std::max<std::chrono::milliseconds>(300s, kFiles * 200ms))) << client->Output();
    client->Signal(SIGTERM);
    EXPECT_EQ(client->Wait(30s), 0);
    for (std::size_t k = 0; k < kills.size(); ++k) {
      for (const auto& path : Transfers(handler, kills[k].first)) {
        EXPECT_EQ(kills[k].second.count(path), 0u) << path << " was recorded at kill " << k << " and moved again";
      }
    }
    // The kills fell while files went, not only before.
    EXPECT_GT(kills.back().second.size(), 0u);
    EXPECT_EQ(ExceptionLog(home), "");
  }
};

TEST_F(CrashTest, AFirstSyncKilledAtRandomMomentsLosesNothingAndFetchesNothingTwice) {
  for (int i = 0; i < kFiles; ++i) Write(ServerDocs() / Name(i), Content(i));
  StartServer();
  const std::string home = MakeClientHome("alice");
  KillAtRandomMoments(home, "DownloadStorageFile.ashx", [&] {
    // A file under its own name is the server's, whole; a part stands only under a hidden name.
    for (const auto& [relative, bytes] : Tree(ClientDocs(home))) {
      if (bytes == "<folder>" || fs::path(relative).filename().string().front() == '.') continue;
      EXPECT_EQ(bytes, Read(ServerDocs() / relative)) << relative;
    }
  });
  EXPECT_EQ(Tree(ClientDocs(home)).size(), static_cast<std::size_t>(kFiles + 20));
}

TEST_F(CrashTest, AnUploadKilledAtRandomMomentsLosesNothingAndSendsNothingTwice) {
  Write(ServerDocs() / "marker.txt", "a storage that lists nothing counts as one that could not be listed\n");
  StartServer();
  const std::string home = MakeClientHome("bob");
  for (int i = 0; i < kFiles; ++i) Write(ClientDocs(home) / Name(i), Content(i));
  KillAtRandomMoments(home, "UploadStorageFile.ashx", [&] {
    for (const auto& [relative, bytes] : Tree(ServerDocs())) {
      if (bytes == "<folder>" || relative == "marker.txt") continue;
      EXPECT_EQ(bytes, Read(ClientDocs(home) / relative)) << relative;
    }
  });
  EXPECT_EQ(Tree(ServerDocs()).size(), static_cast<std::size_t>(kFiles + 21));
}
