#include "CVStaticHelpers.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>

std::string CVStaticHelpers::HomeFolder() {
  const char* home = std::getenv("HOME");
  if (home && *home) return home;
  if (passwd* entry = getpwuid(getuid()); entry && entry->pw_dir) return entry->pw_dir;
  return "/";
}

std::string CVStaticHelpers::GenerateRootPath() {
  std::string home = HomeFolder();
  while (home.size() > 1 && home.back() == '/') home.pop_back();
  if (home == "/") return "/Corvalink";
  return home + "/Corvalink";
}

std::string CVStaticHelpers::GenerateRootPathForStorages() { return GenerateRootPath(); }

std::string CVStaticHelpers::GenerateSettingsPath() { return GenerateRootPath() + "/.Settings"; }

bool CVStaticHelpers::CreateSettingsFolder() {
  std::string settings = GenerateSettingsPath();
  std::error_code error;
  if (std::filesystem::is_directory(settings, error)) return true;
  std::filesystem::create_directories(GenerateRootPath(), error);
  // The settings hold the account: readable by the user alone.
  if (mkdir(settings.c_str(), 0700) != 0 && errno != EEXIST) return false;
  return std::filesystem::is_directory(settings, error);
}

std::string CVStaticHelpers::FormatDateTime(std::int64_t secondsSince1970) {
  std::time_t when = static_cast<std::time_t>(secondsSince1970);
  std::tm parts{};
  localtime_r(&when, &parts);
  char buffer[32];
  std::size_t length = std::strftime(buffer, sizeof buffer, "%d/%m/%Y %H:%M:%S", &parts);
  return std::string(buffer, length);
}
