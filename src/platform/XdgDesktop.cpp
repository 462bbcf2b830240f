#include "XdgDesktop.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {
std::string Home() {
  const char* home = std::getenv("HOME");
  return home && *home ? home : "/";
}
}  // namespace

std::string XdgDesktop::ConfigHome() {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  if (config && *config == '/') return config;
  return Home() + "/.config";
}

std::string XdgDesktop::AutostartFilePath() {
  return ConfigHome() + "/autostart/corvalink-sync.desktop";
}

bool XdgDesktop::IsAutostartRegistered() {
  std::error_code error;
  return std::filesystem::is_regular_file(AutostartFilePath(), error);
}

std::string XdgDesktop::BookmarksFilePath() { return ConfigHome() + "/gtk-3.0/bookmarks"; }

bool XdgDesktop::BookmarksHasLabel(const std::string& label) {
  std::ifstream in(BookmarksFilePath());
  std::string line;
  while (std::getline(in, line)) {
    auto space = line.find(' ');
    if (space != std::string::npos && line.substr(space + 1) == label) return true;
  }
  return false;
}
