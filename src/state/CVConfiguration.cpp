#include "CVConfiguration.h"

#include <algorithm>
#include <cctype>

namespace {
std::unique_ptr<CVConfiguration>& Slot() {
  static std::unique_ptr<CVConfiguration> instance;
  return instance;
}

std::string Lower(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}
}  // namespace

CVConfiguration& CVConfiguration::Instance() {
  auto& slot = Slot();
  if (!slot) slot.reset(new CVConfiguration());
  return *slot;
}

void CVConfiguration::ResetForTests() { Slot().reset(new CVConfiguration()); }

void CVConfiguration::SetPartSizeSource(std::function<std::int64_t()> source) {
  partSizeSource_ = std::move(source);
}

std::vector<CVConfiguration::SitePtr> CVConfiguration::SitesCopy() {
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  return fSpSites;
}

CVConfiguration::SitePtr CVConfiguration::GetSiteByName(const std::string& name) {
  std::string wanted = Lower(name);
  std::lock_guard<std::recursive_mutex> lock(fSpSitesLock);
  for (const auto& site : fSpSites) {
    if (Lower(site->Name) == wanted) return site;
  }
  for (const auto& site : fSpSitestUploadRequest) {
    if (Lower(site->Name) == wanted) return site;
  }
  return nullptr;
}

bool CVConfiguration::isNameExists(const std::string& name) {
  std::string wanted = Lower(name);
  for (const auto& site : SitesCopy()) {
    if (Lower(site->Name) == wanted) return true;
  }
  return false;
}

void CVConfiguration::ReadConfigFromFile() {}

std::string CVConfiguration::SaveConfigXML() { return ""; }
