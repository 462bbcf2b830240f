#include "HeldBackNames.h"

#include <algorithm>
#include <exception>
#include <memory>

#include "CVEventLogger.h"
#include "CVStateXMLFile.h"
#include "CVStaticHelpers.h"
#include "StateFileSupport.h"

namespace {

const char kClassName[] = "HeldBackNames";

std::unique_ptr<HeldBackNames>& Slot() {
  static std::unique_ptr<HeldBackNames> instance;
  return instance;
}

}  // namespace

HeldBackNames& HeldBackNames::Instance() {
  static std::mutex creating;
  std::lock_guard<std::mutex> lock(creating);
  if (!Slot()) Slot().reset(new HeldBackNames());
  return *Slot();
}

void HeldBackNames::ResetForTests() { Slot().reset(new HeldBackNames()); }

std::string HeldBackNames::FilePath() { return CVStaticHelpers::GenerateSettingsPath() + "/HeldBackNames.xml"; }

std::vector<HeldBackName> HeldBackNames::ReadFile() {
  std::vector<HeldBackName> names;
  try {
    std::optional<HeldBackName> current;
    CVStateXMLFile::Events events;
    events.startElement = [&](const std::string& name) {
      if (name == "HeldBackName") current.emplace();
    };
    events.endElement = [&](const std::string& name, const std::string& text) {
      if (!current) return;
      if (name == "HeldBackName") {
        if (!current->localPath.empty()) names.push_back(std::move(*current));
        current.reset();
      } else if (name == "localPath") {
        current->localPath = StateFileSupport::TrimPath(text);
      } else if (name == "reason") {
        current->reason = CVStateXMLFile::Trim(text);
      } else if (name == "suggestion") {
        current->suggestion = CVStateXMLFile::TrimLayout(text);
      } else if (name == "fromServer") {
        current->fromServer = CVStateXMLFile::Trim(text) == "true";
      } else if (name == "since") {
        current->since = std::atoll(CVStateXMLFile::Trim(text).c_str());
      }
    };
    std::string bytes, failure;
    const StateFileRead state = CVStateXMLFile::ReadFile(FilePath(), bytes, failure);
    if (state == StateFileRead::Unreadable) {
      CVEventLogger::LogException(kClassName, "ReadFile", "cannot read " + FilePath() + ": " + failure);
    } else if (state == StateFileRead::Whole) {
      if (auto error = CVStateXMLFile::Parse(bytes, events)) {
        // Only a list of what was reported: what was read stands, the next change rewrites it.
        CVEventLogger::LogException(kClassName, "ReadFile",
                                    FilePath() + " does not parse: " + error->description + "; " +
                                        std::to_string(names.size()) + " entries read");
      }
    }
  } catch (const std::exception& exception) {
    CVEventLogger::LogException(kClassName, "ReadFile", exception.what());
  }
  return names;
}

std::string HeldBackNames::Describe(const HeldBackName& name) {
  std::string text = name.localPath + (name.fromServer ? " stays on the server: " : " stays on this computer: ") +
                     name.reason + ".";
  if (!name.suggestion.empty()) {
    text += " Rename it, for example to \"" + name.suggestion + "\", and it is synced again.";
  } else if (name.fromServer) {
    text += " Give it a shorter name on the server, and it is synced again.";
  }
  return text;
}

void HeldBackNames::Load() {
  auto names = ReadFile();
  std::lock_guard<std::mutex> lock(lock_);
  names_ = std::move(names);
  loaded_ = true;
}

void HeldBackNames::EnsureLoaded() {
  bool loaded;
  {
    std::lock_guard<std::mutex> lock(lock_);
    loaded = loaded_;
  }
  if (!loaded) Load();
}

bool HeldBackNames::Save(const std::vector<HeldBackName>& names) {
  const bool saved = CVStateXMLFile::SaveStreamed(FilePath(), [&](CVStateXMLFile::Writer& writer) {
    writer.StartElement("HeldBackNames");
    for (const auto& name : names) {
      if (!CVStateXMLFile::IsXMLText(name.localPath) || !CVStateXMLFile::IsXMLText(name.suggestion)) continue;
      writer.StartElement("HeldBackName");
      writer.WriteElement("localPath", name.localPath);
      writer.WriteElement("reason", name.reason);
      writer.WriteElement("suggestion", name.suggestion);
      writer.WriteElement("fromServer", name.fromServer ? "true" : "false");
      writer.WriteElement("since", std::to_string(name.since));
      writer.EndElement();
    }
    writer.EndElement();
  });
  if (!saved) CVEventLogger::LogException(kClassName, "Save", FilePath() + " could not be written");
  return saved;
}

bool HeldBackNames::Hold(HeldBackName name) {
  EnsureLoaded();
  std::lock_guard<std::mutex> lock(lock_);
  auto found = std::find_if(names_.begin(), names_.end(),
                            [&](const HeldBackName& held) { return held.localPath == name.localPath; });
  if (found != names_.end() && found->reason == name.reason && found->suggestion == name.suggestion) return false;
  const bool told = found != names_.end() && found->reason == name.reason;
  if (name.since == 0) name.since = StateFileSupport::NowSeconds();
  if (found != names_.end()) {
    *found = std::move(name);
  } else {
    names_.push_back(std::move(name));
  }
  Save(names_);
  return !told;
}

bool HeldBackNames::Release(const std::string& path) {
  EnsureLoaded();
  std::lock_guard<std::mutex> lock(lock_);
  const auto released = std::erase_if(
      names_, [&](const HeldBackName& held) { return StateFileSupport::IsSameOrBelow(held.localPath, path); });
  if (released > 0) Save(names_);
  return released > 0;
}

std::optional<HeldBackName> HeldBackNames::Find(const std::string& path) {
  EnsureLoaded();
  std::lock_guard<std::mutex> lock(lock_);
  for (const auto& held : names_) {
    if (StateFileSupport::IsSameOrBelow(path, held.localPath)) return held;
  }
  return std::nullopt;
}

std::vector<HeldBackName> HeldBackNames::All() {
  EnsureLoaded();
  std::lock_guard<std::mutex> lock(lock_);
  return names_;
}
