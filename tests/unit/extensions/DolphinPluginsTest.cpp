// Dolphin's plug-ins as Dolphin finds and loads them (the built folder as Qt's
// plug-in path), against a scripted client on the socket: the badges per state,
// the changes it pushes, the menu entries per selection and policy, the commands
// they send, and a client that is away or silent.

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <KAbstractFileItemActionPlugin>
#include <KFileItem>
#include <KFileItemListProperties>
#include <KOverlayIconPlugin>
#include <KPluginFactory>
#include <KPluginMetaData>
#include <QAction>
#include <QApplication>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>
#include <QMenu>
#include <QPluginLoader>
#include <QSignalSpy>
#include <QTest>
#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <utility>
#include <thread>

#include "LocalSocket.h"
#include "TempHome.h"

void PrintTo(const QStringList& list, std::ostream* out) { *out << list.join(", ").toStdString(); }

namespace {

// The running client as the plug-ins see it: answers from its tables, or none
// at all when silent; keeps every request after the greeting.
class ScriptedClient {
 public:
  ScriptedClient(const std::string& path, bool silent) : path_(path), silent_(silent) {
    sockaddr_un address{AF_UNIX, {}};
    std::strcpy(address.sun_path, path.c_str());
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 8);
    acceptor_ = std::thread([this] {
      for (int fd; (fd = accept(listener_, nullptr, nullptr)) >= 0;) servers_.emplace_back([this, fd] { Serve(fd); });
    });
  }
  ~ScriptedClient() {
    stop_ = true;
    shutdown(listener_, SHUT_RDWR);  // ends accept()
    acceptor_.join();
    for (std::thread& server : servers_) server.join();
    close(listener_);
    unlink(path_.c_str());
  }
  template <typename F>
  auto Locked(F f) {
    std::lock_guard lock(mutex_);
    return f();
  }
  void Push(const std::string& path) {
    Locked([&] {
      for (LineChannel* subscriber : subscribers_) subscriber->WriteLine({"CHANGED", path});
    });
  }
  bool Heard(const std::vector<std::string>& request) {
    return Locked([&] { return std::find(heard.begin(), heard.end(), request) != heard.end(); });
  }

  std::map<std::string, std::string> states;
  std::string root;
  std::vector<std::string> windows;
  std::vector<std::vector<std::string>> heard;

 private:
  void Serve(int fd) {
    LineChannel channel(fd);
    for (bool greeting = true; !stop_;) {
      auto line = channel.ReadLine(std::chrono::milliseconds(20));
      if (!line && !channel.timedOut()) break;
      if (!line || line->empty()) continue;
      std::lock_guard lock(mutex_);
      if (!std::exchange(greeting, false)) heard.push_back(*line);
      const std::string& word = (*line)[0];
      std::vector<std::string> answer;
      if (word == "file-manager-subscribe") {
        answer = {"SUBSCRIBED"};
        subscribers_.push_back(&channel);
      } else if (word == "STATE") {
        answer = {"STATE", (*line)[1], states.count((*line)[1]) ? states[(*line)[1]] : "none"};
      } else if (word == "STORAGES") {
        answer = {"STORAGES", root, "Docs", "Team"};
      } else if (word == "WINDOWS") {
        answer = windows;
        answer.insert(answer.begin(), "WINDOWS");
      } else if (word == "OPEN" || word == "SEND") {
        answer = {word == "OPEN" ? "OPENED" : "SENT"};
      }
      if (!silent_ && !answer.empty()) channel.WriteLine(answer);
    }
    Locked([&] { return std::erase(subscribers_, &channel); });
  }

  std::string path_;
  bool silent_;
  int listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::atomic<bool> stop_ = false;
  std::mutex mutex_;
  std::vector<LineChannel*> subscribers_;
  std::thread acceptor_;
  std::vector<std::thread> servers_;  // only the acceptor adds, before it is joined
};

constexpr const char* kInStep = "corvalink-cached_circle_tick-004";
constexpr const char* kInWork = "corvalink-cached-processing-hourglass-004";
constexpr const char* kFailed = "icon-disconnect-004";

class DolphinPluginsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("XDG_RUNTIME_DIR", home_.path().c_str(), 1);
    socket_ = home_.path() + "/corvalink-sync/corvalink-sync.socket";
    mkdir((home_.path() + "/corvalink-sync").c_str(), 0700);
  }
  void Start(bool silent = false) {
    client_ = std::make_unique<ScriptedClient>(socket_, silent);
    client_->root = root_;
  }
  // The one plug-in of a kind in Qt's plug-in path, as Dolphin looks it up.
  static KPluginMetaData Found(const char* folder, const char* serviceType) {
    const KPluginMetaData found = KPluginMetaData::findPlugins(folder).value(0);
    EXPECT_TRUE(found.rawData()["KPlugin"].toObject()["ServiceTypes"].toArray().contains(serviceType)) << folder;
    return found;
  }
  std::unique_ptr<KOverlayIconPlugin> Overlays() {
    QObject* instance = QPluginLoader(Found("kf5/overlayicon", "KOverlayIconPlugin").fileName()).instance();
    return std::unique_ptr<KOverlayIconPlugin>(qobject_cast<KOverlayIconPlugin*>(instance));
  }
  std::unique_ptr<KAbstractFileItemActionPlugin> Actions() {
    const KPluginMetaData data = Found("kf5/kfileitemaction", "KFileItemAction/Plugin");
    EXPECT_TRUE(data.mimeTypes().contains("inode/directory"));
    return std::unique_ptr<KAbstractFileItemActionPlugin>(
        KPluginFactory::instantiatePlugin<KAbstractFileItemActionPlugin>(data).plugin);
  }
  // A selection of paths under the home; a trailing "/" makes a folder.
  KFileItemListProperties Selection(const std::vector<std::string>& paths) {
    KFileItemList items;
    for (const std::string& p : paths) {
      const QUrl url = QUrl::fromLocalFile(QString::fromStdString(home_.path() + "/" + p));
      items.append(KFileItem(url.adjusted(QUrl::StripTrailingSlash), QString(), p.back() == '/' ? S_IFDIR : S_IFREG));
    }
    return KFileItemListProperties(items);
  }
  std::string Path(const std::string& relative) { return root_ + "/" + relative; }

  TempHome home_;
  std::string socket_;
  std::string root_ = home_.root();
  std::unique_ptr<ScriptedClient> client_;
};

TEST_F(DolphinPluginsTest, BadgesFollowTheStatesAndThePushedChanges) {
  Start();
  // Badge-less answers first: once the last badge comes, every answer has.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"Docs", "folder"}, {"Docs/new.txt", "none"}, {"Docs/a.txt", "in-step"},
      {"Docs/b.txt", "in-work"}, {"Team/c.txt", "failed"}};
  for (const auto& [relative, state] : cases) client_->states[Path(relative)] = state;
  auto plugin = Overlays();
  ASSERT_NE(plugin, nullptr);
  QSignalSpy changed(plugin.get(), &KOverlayIconPlugin::overlaysChanged);
  auto overlays = [&](const std::string& path) { return plugin->getOverlays(QUrl::fromLocalFile(path.c_str())); };
  const std::string outside = home_.path() + "/elsewhere.txt";
  for (const auto& [relative, state] : cases) EXPECT_TRUE(overlays(Path(relative)).isEmpty()) << "never waits";
  EXPECT_TRUE(overlays(outside).isEmpty());
  ASSERT_TRUE(QTest::qWaitFor([&] { return changed.size() == 3; }));
  const std::map<std::string, QStringList> expected = {
      {"Docs", {}}, {"Docs/new.txt", {}}, {"Docs/a.txt", {kInStep}}, {"Docs/b.txt", {kInWork}}, {"Team/c.txt", {kFailed}}};
  for (const auto& [relative, shown] : expected) EXPECT_EQ(overlays(Path(relative)), shown) << relative;
  EXPECT_TRUE(overlays(outside).isEmpty());
  EXPECT_FALSE(client_->Heard({"STATE", outside})) << "paths outside the storages are not asked";

  // A pushed change has the path asked again and redrawn; a path never shown is not asked.
  client_->Locked([&] { return client_->states[Path("Docs/a.txt")] = "in-work"; });
  client_->Push(Path("Docs/unseen.txt"));
  client_->Push(Path("Docs/a.txt"));
  ASSERT_TRUE(QTest::qWaitFor([&] { return changed.size() == 4; }));
  EXPECT_EQ(changed.last()[0].toUrl().toLocalFile().toStdString(), Path("Docs/a.txt"));
  EXPECT_EQ(changed.last()[1].toStringList(), QStringList{kInWork});
  EXPECT_EQ(overlays(Path("Docs/a.txt")), QStringList{kInWork});
  EXPECT_FALSE(client_->Heard({"STATE", Path("Docs/unseen.txt")}));

  // The client stops: every badge goes.
  client_.reset();
  ASSERT_TRUE(QTest::qWaitFor([&] { return changed.size() == 7; }));
  for (const auto& [relative, shown] : expected) EXPECT_TRUE(overlays(Path(relative)).isEmpty()) << relative;
}

TEST_F(DolphinPluginsTest, MenuEntriesFollowTheSelectionAndThePolicyAndSendTheirCommands) {
  Start();
  auto plugin = Actions();
  ASSERT_NE(plugin, nullptr);
  const std::vector<std::string> all = {"ShareToInternal", "ShareToExternal", "ViewVersions"};
  struct Case {
    std::vector<std::string> selection, windows;
    QStringList entries;
  };
  const std::vector<Case> cases = {
      {{"Corvalink/Docs/a.txt"}, all, {"Share inside", "Share outside", "Versions"}},
      {{"Corvalink/Docs/sub/"}, all, {"Share inside", "Share outside"}},
      {{"Corvalink/Docs/a.txt", "Corvalink/Docs/b.txt"}, all, {"Share inside", "Share outside"}},
      {{"Corvalink/Docs/a.txt"}, {"ShareToExternal"}, {"Share outside"}},
      {{"Corvalink/Docs/a.txt"}, {}, {}},
      {{"Corvalink/Docs/"}, all, {}},
      {{"Corvalink/"}, all, {}},
      {{"Corvalink/Docs/a.txt", "elsewhere.txt"}, all, {}},
      {{"elsewhere.txt", "Corvalink2/x.txt"}, all, {"Send to Corvalink"}},
  };
  for (const Case& c : cases) {
    client_->Locked([&] { return client_->windows = c.windows; });
    QWidget parent;  // owns the entries
    QStringList entries;
    // The menu waits 200 ms for the client; on a loaded machine an answer may come later.
    (void)QTest::qWaitFor([&] {
      entries.clear();
      for (QAction* action : plugin->actions(Selection(c.selection), &parent)) entries << action->text();
      return entries == c.entries;
    }, 5000);
    EXPECT_EQ(entries, c.entries) << c.selection[0] << " " << c.selection.size();
  }

  QWidget parent;
  client_->Locked([&] { return client_->windows = all; });
  plugin->actions(Selection({"Corvalink/Docs/a.txt"}), &parent).value(0)->trigger();
  const QList<QAction*> sendTo = plugin->actions(Selection({"elsewhere.txt"}), &parent);
  ASSERT_EQ(sendTo.size(), 1);
  ASSERT_NE(sendTo[0]->menu(), nullptr);
  QStringList storages;
  for (QAction* storage : sendTo[0]->menu()->actions()) storages << storage->text();
  EXPECT_EQ(storages, (QStringList{"Docs", "Team"}));
  sendTo[0]->menu()->actions().value(1)->trigger();
  EXPECT_TRUE(client_->Heard({"OPEN", "ShareToInternal", Path("Docs/a.txt")}));
  EXPECT_TRUE(QTest::qWaitFor([&] { return client_->Heard({"SEND", "Team", home_.path() + "/elsewhere.txt"}); }));
}

TEST_F(DolphinPluginsTest, AClientAwayOrSilentNeverHoldsDolphin) {
  for (const bool running : {false, true}) {
    if (running) Start(/*silent=*/true);
    QElapsedTimer timer;
    timer.start();
    auto overlays = Overlays();
    for (int i = 0; i < 100; ++i) {
      EXPECT_TRUE(overlays->getOverlays(QUrl::fromLocalFile(QString::fromStdString(Path("Docs/" + std::to_string(i)))))
                      .isEmpty());
    }
    QWidget parent;
    EXPECT_TRUE(Actions()->actions(Selection({"Corvalink/Docs/a.txt"}), &parent).isEmpty());
    overlays.reset();  // while its thread waits on the silent client
    EXPECT_LT(timer.elapsed(), 2000) << (running ? "silent client" : "no client");
  }
}

}  // namespace

// Dolphin's menus need an application object; no display. The built
// folder is Qt's plug-in path, as the installed one is Dolphin's.
int main(int argc, char** argv) {
  setenv("QT_QPA_PLATFORM", "minimal", 1);
  setenv("QT_PLUGIN_PATH", CORVALINK_DOLPHIN_PLUGINS, 1);
  QApplication application(argc, argv);
  ::testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
