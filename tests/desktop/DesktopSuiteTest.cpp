// The desktop client as a user's session runs it: a real corvalink-sync on a
// virtual display, its tray item and notifications read from the session bus
// (played by the test), against the local server.

#include <QCoreApplication>
#include <QDBusConnection>
#include <filesystem>
#include <iostream>
#include <regex>

#include "AccessibilityBus.h"
#include "E2EFixture.h"
#include "Screenshot.h"
#include "TrayBus.h"

namespace {

class DesktopSuite : public E2ETest {
 protected:
  void SetUp() override {
    E2ETest::SetUp();
    ASSERT_TRUE(QDBusConnection::sessionBus().isConnected()) << "run under dbus-run-session";
    ASSERT_NE(getenv("DISPLAY"), nullptr) << "run under xvfb-run";
    ASSERT_TRUE(notifications_.Start());
  }
  void TearDown() override {
    for (auto& client : clients_) client->Signal(SIGTERM);
    for (auto& client : clients_) client->Wait(std::chrono::seconds(20));
    host_.Stop();
    notifications_.Stop();
    E2ETest::TearDown();
  }

  ChildProcess& StartDesktop(const std::string& home, const std::string& timeScale = "0.01") {
    auto environment = ClientEnvironment(home);
    // The desktop client lives on this session's bus, where the test is its tray
    // host and notification server (the account's password stays in its file).
    environment.erase("DBUS_SESSION_BUS_ADDRESS");
    // The icons of the build tree, as the installed theme holds them.
    environment["XDG_DATA_DIRS"] = std::string(CORVALINK_SHARE_DIR) + ":/usr/share";
    environment["CORVALINK_WATCHDOG_MS"] = "100";
    // Its windows on the accessibility bus, as when a screen reader runs.
    environment["QT_LINUX_ACCESSIBILITY_ALWAYS_ON"] = "1";
    clients_.push_back(std::make_unique<ChildProcess>(
        CORVALINK_SYNC_BINARY, std::vector<std::string>{"--time-scale", timeScale}, environment));
    return *clients_.back();
  }

  // The item the client registered, once it has.
  std::unique_ptr<TrayItem> WaitForItem() {
    if (!PumpUntil([&] { return !host_.items().isEmpty(); }, 60000)) return nullptr;
    return std::make_unique<TrayItem>(host_.items().first());
  }

  bool WaitForMenu(const TrayItem& item, const std::string& pattern, std::string& last) {
    const std::regex expected(pattern);
    return PumpUntil([&] { return std::regex_match(last = item.MenuTitles(), expected); }, 60000);
  }

  bool WaitForNotification(const std::string& text) {
    return PumpUntil([&] {
      for (const auto& got : notifications_.received) if (got == text) return true;
      return false;
    }, 20000);
  }

  static std::string MainLog(const std::string& home) {
    std::string text;
    const auto logs = std::filesystem::path(home) / "Corvalink" / ".Settings" / "CVLogger" / "CVMainLogs";
    std::error_code error;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(logs, error)) {
      if (entry.is_regular_file()) text += Read(entry.path());
    }
    return text;
  }

  // The showing control of that accessible name, once there is one.
  std::optional<AccessibleObject> WaitForControl(const std::string& name) {
    std::optional<AccessibleObject> found;
    PumpUntil([&] { return (found = accessibility_.Find(name)).has_value(); }, 30000);
    return found;
  }

  std::string Controls() const {
    std::string text;
    for (const auto& line : accessibility_.Describe()) text += line + "\n";
    return text;
  }

  TestTrayHost host_;
  AccessibilityBus accessibility_;
  TestNotificationServer notifications_;
  std::vector<std::unique_ptr<ChildProcess>> clients_;
};

// The sync in step, paused, resumed, offline and ended, each seen in the tray;
// the entries do what they say; the main loop never waits long.
TEST_F(DesktopSuite, TheTrayFollowsTheSyncAndItsEntriesWork) {
  StartServer();
  Write(ServerDocs() / "hello.txt", "from the server");
  const std::string home = MakeClientHome("desk");
  ASSERT_TRUE(host_.Start());
  ChildProcess& client = StartDesktop(home);
  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  EXPECT_EQ(item->Property("Id").toStdString(), "Corvalink Sync");

  const std::string tail =
      "---\\|Sync status…\\|Settings…\\|Storages…\\|Activity…\\|Shared files…\\|Upload requests…\\|Request "
      "files…\\|Open Corvalink folder\\|---\\|Exit\\|";
  std::string menu;
  ASSERT_TRUE(WaitForMenu(*item, "Sync now \\(last update at .+\\)\\|Pause sync\\|" + tail, menu)) << menu;
  EXPECT_TRUE(PumpUntil([&] { return item->Property("IconName") == "corvalink-sync-state-2"; }, 20000))
      << item->Property("IconName").toStdString();
  EXPECT_EQ(Read(ClientDocs(home) / "hello.txt"), "from the server");

  ASSERT_TRUE(item->Click("Pause sync"));
  EXPECT_TRUE(WaitForMenu(*item, "Start sync\\|" + tail, menu)) << menu;
  EXPECT_TRUE(WaitForNotification("Corvalink Sync: Synchronization paused"));
  EXPECT_EQ(item->ToolTipTitle(), "Corvalink Sync. Synchronization paused.");
  ASSERT_TRUE(item->Click("Start sync"));
  EXPECT_TRUE(WaitForMenu(*item, "Sync now.*\\|Pause sync\\|" + tail, menu)) << menu;

  // "Sync now" is there between passes (the test's clock runs them often).
  const std::regex syncNow("Sync now.*");
  EXPECT_TRUE(PumpUntil([&] {
    for (const auto& entry : item->Menu()) {
      if (std::regex_match(entry.label, syncNow)) return item->Click(entry.label);
    }
    return false;
  }, 60000)) << item->MenuTitles();
  EXPECT_TRUE(PumpUntil([&] { return MainLog(home).find("syncNowCommand -> Sync now pressed") != std::string::npos; },
                        20000));

  // The server goes away: the next pass is offline.
  StopServer();
  EXPECT_TRUE(PumpUntil([&] { return item->Property("IconName") == "corvalink-sync-state-4"; }, 60000))
      << item->Property("IconName").toStdString();

  ASSERT_TRUE(item->Click("Exit"));
  EXPECT_EQ(client.Wait(std::chrono::seconds(30)), 0) << client.Output();
  std::smatch watchdog;
  const std::string output = client.WholeOutput(std::chrono::seconds(5));
  ASSERT_TRUE(std::regex_search(output, watchdog, std::regex("Main loop watchdog: longest wait (\\d+) ms, (\\d+) stalls")))
      << output;
  // Figures for the record; a wait of a second means the main thread waited on
  // the network or the sync, which a busy test machine alone does not explain.
  std::cout << watchdog[0] << std::endl;
  EXPECT_LT(std::stoi(watchdog[1]), 1000);
}

TEST_F(DesktopSuite, WithoutAnAccountTheSignInWindowOpensAndTheMenuOffersIt) {
  ASSERT_TRUE(host_.Start());
  ChildProcess& client = StartDesktop(MakeEmptyHome("new"));
  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  std::string menu;
  EXPECT_TRUE(WaitForMenu(*item, "Sign in…\\|---\\|Exit\\|", menu)) << menu;
  EXPECT_NE(client.Output().find("the sign-in window is open"), std::string::npos) << client.Output();
  ASSERT_TRUE(item->Click("Exit"));
  EXPECT_EQ(client.Wait(std::chrono::seconds(30)), 0) << client.Output();
}

// A first start signs in through the window as a screen reader user would: the
// fields filled and the buttons pressed over the accessibility bus, one folder
// left out in the tree; the rest syncs and the tray says it is in step.
TEST_F(DesktopSuite, SigningInThroughTheWindowSyncsTheFoldersChosen) {
  StartServer();
  Write(ServerDocs() / "Keep" / "kept.txt", "kept");
  Write(ServerDocs() / "Skip" / "skipped.txt", "left on the server");
  Write(ServerDocs() / "top.txt", "top");
  const std::string home = MakeEmptyHome("window");
  ASSERT_TRUE(host_.Start());
  ASSERT_TRUE(accessibility_.Connect()) << "no accessibility bus on the session bus";
  ChildProcess& client = StartDesktop(home);

  const auto url = WaitForControl("Server URL");
  ASSERT_TRUE(url) << client.Output() << Controls();
  ASSERT_TRUE(accessibility_.SetText(*url, serverUrl_));
  ASSERT_TRUE(accessibility_.SetText(*accessibility_.Find("User name"), "alice"));
  ASSERT_TRUE(accessibility_.SetText(*accessibility_.Find("Password"), "secret"));
  ASSERT_TRUE(accessibility_.Press(*accessibility_.Find("Sign in")));

  const auto choose = WaitForControl("Choose folders");
  ASSERT_TRUE(choose) << client.Output() << Controls();
  ASSERT_TRUE(accessibility_.Press(*choose));
  ASSERT_TRUE(WaitForControl("Skip")) << Controls();
  // A tree's check boxes answer the keyboard only: the storage is ticked whole
  // with the space bar on its row, then the row found by typing its name unticked.
  constexpr int kSpace = 0x20;
  ASSERT_TRUE(accessibility_.PressKey(kSpace));
  ASSERT_TRUE(accessibility_.Type("Skip"));
  ASSERT_TRUE(accessibility_.PressKey(kSpace));
  ASSERT_TRUE(accessibility_.Press(*WaitForControl("Save the choice of folders")));
  ASSERT_TRUE(accessibility_.Press(*WaitForControl("Close")));

  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  // A pass that ended before the choice was saved shows the in-step icon too:
  // what counts is the icon once the chosen files are here.
  EXPECT_TRUE(PumpUntil(
      [&] {
        return Read(ClientDocs(home) / "Keep" / "kept.txt") == "kept" && Read(ClientDocs(home) / "top.txt") == "top" &&
               item->Property("IconName") == "corvalink-sync-state-2";
      },
      60000))
      << item->Property("IconName").toStdString() << client.Output();
  EXPECT_EQ(Read(ClientDocs(home) / "Keep" / "kept.txt"), "kept");
  EXPECT_EQ(Read(ClientDocs(home) / "top.txt"), "top");
  EXPECT_FALSE(std::filesystem::exists(ClientDocs(home) / "Skip"));

  // The storages tab lists the storage with the choice made.
  ASSERT_TRUE(item->Click("Storages…"));
  EXPECT_TRUE(WaitForControl("(Custom sync)")) << Controls();
}

TEST_F(DesktopSuite, NotificationsTurnedOffAreNotSent) {
  StartServer();
  const std::string home = MakeClientHome("quiet");
  const auto config = std::filesystem::path(home) / "Corvalink" / ".Settings" / "Configuration.xml";
  std::string xml = Read(config);
  xml.replace(xml.find("<SyncCV>"), 0, "<NotificationTray>false</NotificationTray>");
  Write(config, xml);
  ASSERT_TRUE(host_.Start());
  ChildProcess& client = StartDesktop(home);
  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  std::string menu;
  ASSERT_TRUE(WaitForMenu(*item, "Sync now.*", menu)) << menu;
  ASSERT_TRUE(item->Click("Pause sync"));
  EXPECT_TRUE(WaitForMenu(*item, "Start sync.*", menu)) << menu;
  PumpUntil([] { return false; }, 1000);  // a notification would have come by now
  EXPECT_TRUE(notifications_.received.empty()) << notifications_.received.front();
}

// Two accounts on the local server: what alice shares shows in bob's Shared In
// window, opened from his tray, and comes into his cache from there.
TEST_F(DesktopSuite, AShareFromAliceShowsInBobsSharedInWindowAndDownloads) {
  StartServer({"--user", "bob:pw"});
  const std::string alice = MakeClientHome("alice");
  const std::string bob = MakeClientHomeAs("bob", "bob", "pw");
  Write(ServerDocs() / "report.txt", "numbers");
  Write(ClientDocs(alice) / "report.txt", "numbers");
  auto shared = RunCommand(alice, {"share", (ClientDocs(alice) / "report.txt").string(), "--to", "bob"});
  ASSERT_EQ(shared.code, 0) << shared.output;

  ASSERT_TRUE(host_.Start());
  ASSERT_TRUE(accessibility_.Connect()) << "no accessibility bus on the session bus";
  ChildProcess& client = StartDesktop(bob);
  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  // Once bob's own sync is in step, so that the window's download runs alone.
  ASSERT_TRUE(PumpUntil(
      [&] { return Read(ClientDocs(bob) / "report.txt") == "numbers" && item->Property("IconName") == "corvalink-sync-state-2"; },
      60000))
      << client.Output();
  std::string menu;
  ASSERT_TRUE(WaitForMenu(*item, ".*Shared files….*", menu)) << menu;
  ASSERT_TRUE(item->Click("Shared files…"));
  // The person's row stands first for the keyboard: "Open" shows alice's items.
  const std::string alicesRow = "alice\xE2\xA0\x80(alice@devserver)";
  ASSERT_TRUE(WaitForControl(alicesRow)) << client.Output() << Controls();
  ASSERT_TRUE(accessibility_.Press(*WaitForControl("Open")));
  const auto file = WaitForControl("report.txt");
  ASSERT_TRUE(file) << Controls();
  ASSERT_TRUE(accessibility_.Press(*file));  // a row's action chooses it
  ASSERT_TRUE(accessibility_.Press(*WaitForControl("Download")));
  const auto cached = std::filesystem::path(bob) / "Corvalink" / "Shared In" / "1_report.txt";
  EXPECT_TRUE(PumpUntil([&] { return Read(cached) == "numbers"; }, 30000)) << client.Output() << MainLog(bob);
  EXPECT_NE(MainLog(bob).find("View shared files button pressed"), std::string::npos);
}

// With no tray host the window stands in for the item; a second start asks the
// first to show itself and ends.
TEST_F(DesktopSuite, WithoutATrayHostTheWindowOpensAndASecondStartShowsIt) {
  const std::string home = MakeEmptyHome("plain");
  ChildProcess& first = StartDesktop(home);
  ASSERT_TRUE(first.WaitForLine("the sync manager window stands in for it", std::chrono::seconds(60))) << first.Output();
  ChildProcess& second = StartDesktop(home);
  EXPECT_EQ(second.Wait(std::chrono::seconds(30)), 0) << second.Output();
  EXPECT_TRUE(first.WaitForLine("The sync manager window is shown.", std::chrono::seconds(10))) << first.Output();
}

#ifdef CORVALINK_NAUTILUS_LAUNCHER
// GNOME Files itself with the extension of this build, opened on a folder: the
// badges it is given are read back from the extension's debug log, its context
// menu opened with a right click and its entries chosen over the accessibility bus.
class FileManagerSuite : public DesktopSuite {
 protected:
  // GNOME Files on folder, in the client's environment, as its user starts it,
  // once the extension has said ready; nullptr when the test is skipped or failed.
  ChildProcess* StartFileManager(const std::string& home, const std::filesystem::path& folder,
                                 const std::string& ready) {
    // A window manager gives the window the keyboard and places its menus.
    clients_.push_back(std::make_unique<ChildProcess>("/usr/bin/openbox", std::vector<std::string>{},
                                                      std::map<std::string, std::string>{}));
    auto environment = ClientEnvironment(home);
    environment.erase("DBUS_SESSION_BUS_ADDRESS");
    environment["XDG_DATA_DIRS"] = std::string(CORVALINK_SHARE_DIR) + ":/usr/share";  // the emblems of the build
    environment["G_MESSAGES_DEBUG"] = "CorvalinkNautilus";
    clients_.push_back(std::make_unique<ChildProcess>(
        CORVALINK_NAUTILUS_LAUNCHER,
        std::vector<std::string>{CORVALINK_NAUTILUS_EXTENSIONS, CORVALINK_NAUTILUS_SYSTEM_EXTENSIONS, "--new-window",
                                 folder.string()},
        environment));
    ChildProcess& files = *clients_.back();
    if (WaitForLine(files, ready)) return &files;
    if (files.Output().find("skipped: ") != std::string::npos) {
      [&] { GTEST_SKIP() << files.Output(); }();  // the caller returns at once
    } else {
      ADD_FAILURE() << files.Output();
    }
    return nullptr;
  }
  // Until GNOME Files has said line, serving the bus meanwhile (the test is the tray host).
  bool WaitForLine(ChildProcess& files, const std::string& line) {
    return PumpUntil([&] { return files.CountLines(line) > 0; }, 60000);
  }
  // A right click on the item's cell in GNOME Files' window opens its context
  // menu; each entry of path is then chosen as a click would (a submenu's entry
  // opens it). A view still sorting its items may move one under the click: the
  // menu counts once the window says that item alone is selected.
  testing::AssertionResult ChooseFromMenu(const std::string& item, const std::vector<std::string>& path) {
    constexpr auto kVisible = AccessibilityBus::Shown::kVisible;
    constexpr int kEscape = 0xff1b;
    std::optional<AccessibleObject> found;
    const auto find = [&](const std::string& name, const char* role, int milliseconds) {
      return PumpUntil([&] { return (found = accessibility_.Find(name, role, kVisible)).has_value(); }, milliseconds);
    };
    bool opened = false;
    for (int attempt = 0; attempt < 5 && !opened; ++attempt) {
      if (attempt > 0) accessibility_.PressKey(kEscape);
      if (!find(item, "grid cell", 30000)) {
        return testing::AssertionFailure() << "no cell " << item << ":\n" << Controls();
      }
      const auto box = accessibility_.Extents(*found);
      if (!box) return testing::AssertionFailure() << "no place for " << item;
      // The cell's place is in its window: the click goes to that window. The
      // first click after a menu closed is eaten; a left click first takes it.
      ChildProcess click(
          "/usr/bin/xdotool",
          {"search", "--onlyvisible", "--class", "org.gnome.Nautilus", "mousemove", "--window", "%1",
           std::to_string(box->center().x()), std::to_string(box->center().y()), "click", "1", "click", "3"},
          {});
      if (click.Wait(std::chrono::seconds(20)) != 0) return testing::AssertionFailure() << click.Output();
      opened = find(path.front(), "menu item", 5000) &&
               accessibility_.Find("\u201C" + item + "\u201D selected", "label", kVisible);
    }
    if (!opened) return testing::AssertionFailure() << "no menu for " << item << ":\n" << Controls();
    for (const auto& entry : path) {
      if (!find(entry, "menu item", 30000)) {
        return testing::AssertionFailure() << "no entry " << entry << ":\n" << Controls();
      }
      if (!accessibility_.Press(*found)) return testing::AssertionFailure() << entry << " did not answer";
    }
    return testing::AssertionSuccess();
  }
  // The desktop client and the accessibility bus, for the tests of the menu.
  ChildProcess* StartClientAndBus(const std::string& home) {
    if (!accessibility_.Connect()) {
      [] { GTEST_SKIP() << "no accessibility bus on the session bus"; }();
      return nullptr;
    }
    if (!host_.Start()) {
      ADD_FAILURE() << "the test may not be the tray host";
      return nullptr;
    }
    ChildProcess& client = StartDesktop(home);
    if (WaitForItem()) return &client;
    ADD_FAILURE() << client.Output();
    return nullptr;
  }
  static std::string Badge(const char* emblem, const std::filesystem::path& path) {
    return std::string("emblem ") + emblem + " on " + path.string();
  }
  static constexpr const char* kInStep = "corvalink-cached_circle_tick-004";
  static constexpr const char* kInWork = "corvalink-cached-processing-hourglass-004";
};

TEST_F(FileManagerSuite, GnomeFilesShowsTheBadgesOfAStorageAndFollowsAChange) {
  for (const auto& docs : {ServerDocs(), ClientDocs(MakeEmptyHome("files"))}) {
    Write(docs / "Reports" / "plan.txt", "plan");
    Write(docs / "notes.txt", "first");
  }
  // Every download takes a second: a file stays in work long enough to be drawn
  // so, on a clock slow enough that the client waits for it.
  StartServer({"--fail", "DownloadStorageFile.ashx,*,delay=1000"});
  const std::string home = MakeClientHome("files");
  const auto notes = ClientDocs(home) / "notes.txt";

  // The files are on screen before the client runs, without badges; they get
  // theirs once it is there.
  ChildProcess* started = StartFileManager(home, ClientDocs(home), "no client answers");
  if (!started) return;
  ChildProcess& files = *started;
  ASSERT_TRUE(host_.Start());
  ChildProcess& client = StartDesktop(home, "0.1");
  for (const auto& path : {notes, ClientDocs(home) / "Reports"}) {
    ASSERT_TRUE(WaitForLine(files, Badge(kInStep, path))) << files.Output() << client.Output();
  }
  std::filesystem::create_directories(CORVALINK_SCREENSHOTS);
  ASSERT_TRUE(SaveScreenshot(CORVALINK_SCREENSHOTS "/file-manager-badges.png"));

  // Once the first pass is over, a file changed on the server is in work while it
  // comes down, then in step again.
  auto item = WaitForItem();
  ASSERT_TRUE(item) << client.Output();
  ASSERT_TRUE(PumpUntil([&] { return item->Property("IconName") == "corvalink-sync-state-2"; }, 60000));
  const int inWork = files.CountLines(Badge(kInWork, notes));
  Write(ServerDocs() / "notes.txt", "second");
  ASSERT_TRUE(PumpUntil([&] { return files.CountLines(Badge(kInWork, notes)) > inWork; }, 60000)) << files.Output();
  const int inStep = files.CountLines(Badge(kInStep, notes));
  EXPECT_TRUE(PumpUntil([&] { return files.CountLines(Badge(kInStep, notes)) > inStep; }, 60000)) << files.Output();
  EXPECT_EQ(Read(notes), "second") << files.Output();
}

// "Send to Corvalink" on files outside the storages: one comes into the storage
// and up to the server; one whose name is there already is not copied, and the
// storage's file stays as it was.
TEST_F(FileManagerSuite, SendToFromTheMenuCopiesIntoAStorageWithoutOverwriting) {
  StartServer();
  const std::string home = MakeClientHome("send");
  Write(ServerDocs() / "plan.txt", "the storage's plan");
  Write(ClientDocs(home) / "plan.txt", "the storage's plan");
  const auto outside = root_ / "Outside";
  Write(outside / "letter.txt", "dear server");
  Write(outside / "plan.txt", "another plan");
  ChildProcess* client = StartClientAndBus(home);
  ChildProcess* files = client ? StartFileManager(home, outside, "subscribed on") : nullptr;
  if (!files) return;
  struct Case {
    std::string item, logged, held;  // the extension's line; what the storage and the server hold afterwards
  } cases[] = {
      {"letter.txt", "send to Docs: sent", "dear server"},
      {"plan.txt", "send to Docs: not sent", "the storage's plan"},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(ChooseFromMenu(c.item, {"Send to Corvalink", "Docs"})) << files->Output();
    ASSERT_TRUE(WaitForLine(*files, c.logged)) << files->Output();
    EXPECT_TRUE(PumpUntil([&] { return Read(ServerDocs() / c.item) == c.held; }, 60000)) << client->Output();
    EXPECT_EQ(Read(ClientDocs(home) / c.item), c.held);
  }
  // Only the copy made is told of.
  EXPECT_TRUE(WaitForNotification("Corvalink Sync: File was sent to the root level of: Docs"));
  EXPECT_EQ(notifications_.received.size(), 1u);
  const std::string refused = "send to Docs: " + (outside / "plan.txt").string() + ": not copied";
  EXPECT_NE(MainLog(home).find(refused), std::string::npos);
}

// "Share inside" and "Share outside" open the share window on the file; a share
// made in each is found in the local server's list with its recipient.
TEST_F(FileManagerSuite, TheShareEntriesOpenTheShareWindowOnTheFile) {
  StartServer({"--user", "bob:pw"});
  const std::string home = MakeClientHome("alice");
  Write(ServerDocs() / "report.txt", "numbers");
  Write(ClientDocs(home) / "report.txt", "numbers");
  ChildProcess* client = StartClientAndBus(home);
  ChildProcess* files = client ? StartFileManager(home, ClientDocs(home), "subscribed on") : nullptr;
  if (!files) return;
  struct Case {
    std::string entry;
    std::vector<std::pair<std::string, std::string>> fields;  // accessible name, text
    std::string shown, add, logged;  // what must show before add is pressed; the log line of the share
  } cases[] = {
      {"Share inside", {{"Find users", "bo"}}, "bob@devserver", "Add the user",
       "Share to internal finished with result: 0"},
      {"Share outside", {{"Recipient name", "X"}, {"Recipient e-mail", "x@example.com"}}, "", "Add the recipient",
       "Share to external finished with result: 0"},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(ChooseFromMenu("report.txt", {c.entry})) << files->Output();
    for (const auto& [name, text] : c.fields) {
      ASSERT_TRUE(accessibility_.SetText(*WaitForControl(name), text));
    }
    ASSERT_TRUE(PumpUntil([&] { return Controls().find(c.shown) != std::string::npos; }, 30000)) << Controls();
    ASSERT_TRUE(accessibility_.Press(*WaitForControl(c.add)));
    ASSERT_TRUE(accessibility_.Press(*WaitForControl("Share")));
    EXPECT_TRUE(PumpUntil([&] { return MainLog(home).find(c.logged) != std::string::npos; }, 30000))
        << MainLog(home);
  }
  keepSessionBus_ = true;  // the desktop client moved the password into the session's keyring
  const auto listed = RunCommand(home, {"shared", "out"});
  for (const char* recipient : {"bob@devserver", "x@example.com"}) {
    EXPECT_NE(listed.output.find(recipient), std::string::npos) << listed.output;
  }
}

// "Versions" on a file edited three times opens its version window; the first
// version restored is on the server and comes back into the storage.
TEST_F(FileManagerSuite, VersionsFromTheMenuRestoresTheFirstAndTheStorageFollows) {
  StartServer();
  const std::string home = MakeClientHome("versions");
  const auto notes = ClientDocs(home) / "notes.txt";
  Write(ServerDocs() / "notes.txt", "first");
  ASSERT_EQ(RunOnce(home), 0);
  for (const char* content : {"second!", "third!!!", "fourth"}) {
    Write(notes, content);
    ASSERT_EQ(RunOnce(home), 0);
  }
  ChildProcess* client = StartClientAndBus(home);
  ChildProcess* files = client ? StartFileManager(home, ClientDocs(home), "subscribed on") : nullptr;
  if (!files) return;
  ASSERT_TRUE(ChooseFromMenu("notes.txt", {"Versions"})) << files->Output();
  // The first row chosen once the list has come (a row's action toggles its
  // choice, so it is pressed once), then restored once the button is on.
  bool chosen = false;
  ASSERT_TRUE(PumpUntil(
      [&] {
        const auto first = accessibility_.Find("1");
        if (first && !chosen) chosen = accessibility_.Press(*first);
        const auto restore = accessibility_.Find("Restore");
        return chosen && restore && accessibility_.Press(*restore);
      },
      30000))
      << client->Output() << Controls();
  EXPECT_TRUE(
      PumpUntil([&] { return Read(ServerDocs() / "notes.txt") == "first" && Read(notes) == "first"; }, 60000))
      << client->Output() << MainLog(home);
}
#endif

}  // namespace
