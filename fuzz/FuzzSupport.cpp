#include "FuzzSupport.h"

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string_view>
#include <vector>

#include "CVEventLogger.h"

namespace fs = std::filesystem;

namespace fuzz {
namespace {

std::string& HomeSlot() {
  static std::string home;
  return home;
}

void RemoveHome() {
  std::error_code error;
  if (!HomeSlot().empty()) fs::remove_all(HomeSlot(), error);
}

// Makes the home once and points HOME at it.
void Prepare() {
  std::string pattern = (fs::temp_directory_path() / "cv-fuzz-XXXXXX").string();
  if (!mkdtemp(pattern.data())) std::abort();
  HomeSlot() = pattern;
  setenv("HOME", pattern.c_str(), 1);
  setenv("XDG_DATA_HOME", (pattern + "/.local/share").c_str(), 1);
  setenv("XDG_CONFIG_HOME", (pattern + "/.config").c_str(), 1);
  std::atexit(RemoveHome);
  CVEventLogger::SetEnabled(false);
  // So are the lines some parsers write to std::cerr (a policy target wrote 100 MB
  // in four minutes); the sanitizers and libFuzzer write to the descriptor itself.
  std::cerr.rdbuf(nullptr);
  fs::create_directories(Settings());
}

// libFuzzer writes a finding to the current folder unless told where; a target
// started by hand (from the repository, under strace) puts it where make fuzz does.
void DefaultArtifactPrefix(int* argc, char*** argv) {
  for (int i = 1; i < *argc; ++i) {
    const std::string_view arg = (*argv)[i];
    if (arg.starts_with("-artifact_prefix=") || arg.starts_with("-exact_artifact_path=")) return;
  }
  std::error_code error;
  const fs::path binary = fs::read_symlink("/proc/self/exe", error);
  std::string name = binary.filename().string();
  if (error || !name.starts_with("fuzz_")) return;
  const fs::path findings = binary.parent_path() / "runs" / name.substr(5) / "findings";
  fs::create_directories(findings, error);
  static std::string flag = "-artifact_prefix=" + findings.string() + "/";
  static std::vector<char*> args(*argv, *argv + *argc);
  args.push_back(flag.data());
  args.push_back(nullptr);
  *argc = static_cast<int>(args.size()) - 1;
  *argv = args.data();
}

}  // namespace

std::string Root() { return HomeSlot() + "/Corvalink"; }
std::string Settings() { return Root() + "/.Settings"; }

std::string Text(const std::uint8_t* data, std::size_t size) {
  return std::string(reinterpret_cast<const char*>(data), size);
}

CVSharepoint Storage(const char* name, const char* url, const char* type) {
  CVSharepoint site;
  site.Name = name;
  site.Url = url;
  site.StorageType = type;
  return site;
}

void WriteSettingsFile(const std::string& name, std::string bytes) {
  static const std::string token = "@ROOT@";
  for (auto at = bytes.find(token); at != std::string::npos; at = bytes.find(token, at + Root().size())) {
    bytes.replace(at, token.size(), Root());
  }
  std::ofstream(Settings() + "/" + name, std::ios::binary | std::ios::trunc) << bytes;
}

void ClearSettings() {
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(Settings(), error)) fs::remove_all(entry.path(), error);
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
  fuzz::DefaultArtifactPrefix(argc, argv);
  fuzz::Prepare();
  return 0;
}
