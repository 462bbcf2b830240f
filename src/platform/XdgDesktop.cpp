#include "XdgDesktop.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

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

bool XdgDesktop::RemoveBookmark(const std::string& label) {
  const std::string path = BookmarksFilePath();
  std::ifstream in(path);
  if (!in) return true;  // no bookmarks at all
  std::ostringstream kept;
  std::string line;
  bool removed = false;
  while (std::getline(in, line)) {
    auto space = line.find(' ');
    if (space != std::string::npos && line.substr(space + 1) == label) {
      removed = true;
      continue;
    }
    kept << line << '\n';
  }
  in.close();
  if (!removed) return true;
  // The desktop's file is replaced whole, never left half written.
  const std::string temporary = path + ".corvalink-" + std::to_string(getpid());
  {
    std::ofstream out(temporary, std::ios::trunc);
    out << kept.str();
    if (!out.flush()) {
      std::filesystem::remove(temporary);
      return false;
    }
  }
  std::error_code error;
  std::filesystem::rename(temporary, path, error);
  if (error) std::filesystem::remove(temporary, error);
  return !error;
}
