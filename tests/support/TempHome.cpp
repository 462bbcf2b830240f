#include "TempHome.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "CVConfiguration.h"
#include "CVIPRestriction.h"
#include "CVSelectiveSync.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "DownloadedFilesStore.h"
#include "NewFilesStore.h"
#include "HeldBackNames.h"
#include "SyncListenerAddInfo.h"

namespace fs = std::filesystem;

TempHome::TempHome() {
  std::string pattern = (fs::temp_directory_path() / "cvhome-XXXXXX").string();
  if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
  if (const char* home = std::getenv("HOME")) {
    hadHome_ = true;
    previousHome_ = home;
  }
  setenv("HOME", path_.c_str(), 1);
  CVEventLogger::SetConsoleEcho(false);
  CVConfiguration::ResetForTests();
  CVSelectiveSync::ResetForTests();
  DownloadedFilesStore::Instance().Forget();
  NewFilesStore::Instance().Forget();
  CVIPRestriction::RemoveAll();
  HeldBackNames::ResetForTests();
  SyncListenerAddInfo::ResetForTests();
  CVStaticHelpers::SetMachineIdentity(nullptr);
  CVStaticHelpers::SetTrash(nullptr);
}

TempHome::~TempHome() {
  CVStaticHelpers::SetMachineIdentity(nullptr);
  CVStaticHelpers::SetTrash(nullptr);
  std::error_code error;
  fs::remove_all(path_, error);
  if (hadHome_) {
    setenv("HOME", previousHome_.c_str(), 1);
  } else {
    unsetenv("HOME");
  }
}

std::string TempHome::ReadLog(const std::string& kind) const {
  std::string all;
  std::error_code error;
  fs::path folder = fs::path(settings()) / "CVLogger" / kind;
  if (!fs::is_directory(folder, error)) return all;
  for (const auto& entry : fs::recursive_directory_iterator(folder, error)) {
    if (!entry.is_regular_file()) continue;
    std::ifstream in(entry.path(), std::ios::binary);
    std::stringstream buffer;
    buffer << in.rdbuf();
    all += buffer.str();
  }
  return all;
}
