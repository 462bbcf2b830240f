// The sidebar entries and the login item in the desktop's own files.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>

#include "TempHome.h"
#include "XdgDesktop.h"

namespace {

std::string ReadAll(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

class XdgDesktopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("XDG_DATA_HOME");
  }
  TempHome home_;
};

TEST_F(XdgDesktopTest, SidebarEntriesAreAddedOnceRenamedAndRemovedInBothFiles) {
  std::filesystem::create_directories(home_.path() + "/.config/gtk-3.0");
  std::ofstream(XdgDesktop::BookmarksFilePath()) << "file:///home/me/Music Music\n";
  // Dolphin's places exist on this desktop; they are kept in step too.
  std::filesystem::create_directories(home_.path() + "/.local/share");
  std::ofstream(XdgDesktop::KdePlacesFilePath())
      << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xbel xmlns:bookmark=\"http://www.freedesktop.org/standards/"
         "desktop-bookmarks\"><bookmark href=\"file:///home/me\"><title>Home</title></bookmark></xbel>\n";
  const std::string docs = home_.root() + "/Docs & Co";

  struct Step {
    const char* name;
    std::function<bool()> act;
    std::string gtkLine;  // the entry of ours in the GTK file, "" for none
    int kdeEntries;       // bookmarks of ours in KDE's places
  };
  const std::string added = "file://" + home_.root() + "/Docs%20%26%20Co Corvalink_Docs & Co";
  const std::string renamed = "file://" + home_.root() + "/Team Corvalink_Team";
  const Step steps[] = {
      {"added", [&] { return XdgDesktop::AddFavourite(docs, "Corvalink_Docs & Co"); }, added, 1},
      {"added twice", [&] { return XdgDesktop::AddFavourite(docs, "Corvalink_Docs & Co"); }, added, 1},
      {"renamed",
       [&] { return XdgDesktop::RenameFavourite("Corvalink_Docs & Co", "Corvalink_Team", home_.root() + "/Team"); },
       renamed, 1},
      {"a rename without an entry adds nothing",
       [&] { return XdgDesktop::RenameFavourite("Corvalink_Other", "Corvalink_New", home_.root() + "/New"); },
       renamed, 1},
      {"removed", [&] { return XdgDesktop::RemoveFavourite("Corvalink_Team"); }, "", 0},
  };
  for (const auto& step : steps) {
    ASSERT_TRUE(step.act()) << step.name;
    EXPECT_EQ(ReadAll(XdgDesktop::BookmarksFilePath()),
              "file:///home/me/Music Music\n" + (step.gtkLine.empty() ? "" : step.gtkLine + "\n"))
        << step.name;
    const std::string kde = ReadAll(XdgDesktop::KdePlacesFilePath());
    EXPECT_NE(kde.find("<title>Home</title>"), std::string::npos) << step.name;
    int ours = 0;
    for (auto at = kde.find("<title>Corvalink_"); at != std::string::npos; at = kde.find("<title>Corvalink_", at + 1)) {
      ++ours;
    }
    EXPECT_EQ(ours, step.kdeEntries) << step.name << ": " << kde;
    EXPECT_EQ(XdgDesktop::HasFavourite("Corvalink_Team"), step.gtkLine == renamed) << step.name;
  }
}

TEST_F(XdgDesktopTest, WithoutKdePlacesNoneAreMadeAndTheLoginItemIsOneFile) {
  ASSERT_TRUE(XdgDesktop::AddFavourite(home_.root() + "/Docs", "Corvalink_Docs"));
  EXPECT_EQ(ReadAll(XdgDesktop::BookmarksFilePath()), "file://" + home_.root() + "/Docs Corvalink_Docs\n");
  EXPECT_FALSE(std::filesystem::exists(XdgDesktop::KdePlacesFilePath()));

  for (int i = 0; i < 2; ++i) ASSERT_TRUE(XdgDesktop::RegisterAutostart(true, "/usr/bin/corvalink-sync"));
  EXPECT_TRUE(XdgDesktop::IsAutostartRegistered());
  EXPECT_NE(ReadAll(XdgDesktop::AutostartFilePath()).find("Exec=\"/usr/bin/corvalink-sync\"\n"), std::string::npos);
  ASSERT_TRUE(XdgDesktop::RegisterAutostart(false, ""));
  EXPECT_FALSE(XdgDesktop::IsAutostartRegistered());
  EXPECT_TRUE(XdgDesktop::RegisterAutostart(false, ""));  // already off
}

}  // namespace
