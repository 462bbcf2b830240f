#include "VersionsCommand.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>
#include <sstream>

#include "CVConfiguration.h"
#include "CVEventLogger.h"
#include "CVStaticHelpers.h"
#include "ClientCommands.h"
#include "ClientSetup.h"
#include "Clock.h"
#include "TerminalCommand.h"
#include "VersionWindowController.h"

namespace fs = std::filesystem;

namespace {

std::string Padded(std::string text, std::size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

}  // namespace

std::optional<VersionsCommand::Options> VersionsCommand::Parse(const std::vector<std::string>& arguments,
                                                               std::string& error) {
  Options options;
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    const std::string& word = arguments[i];
    if (word == "--restore" || word == "--save") {
      const std::size_t needed = word == "--save" ? 2 : 1;
      if (i + needed >= arguments.size()) {
        error = word == "--save" ? "--save needs a version and a destination" : "--restore needs a version";
        return std::nullopt;
      }
      if (!options.restore.empty() || !options.save.empty()) {
        error = "give either --restore or --save, once";
        return std::nullopt;
      }
      (word == "--save" ? options.save : options.restore) = arguments[++i];
      if (word == "--save") options.destination = arguments[++i];
    } else if (word.rfind("--", 0) == 0 || !options.path.empty()) {
      error = (word.rfind("--", 0) == 0 ? "unknown option \"" : "one file at a time, not \"") + word + "\"";
      return std::nullopt;
    } else {
      options.path = word;
    }
  }
  if (options.path.empty()) {
    error = "say which file: versions PATH [--restore N | --save N DEST]";
    return std::nullopt;
  }
  return options;
}

VersionsCommand::VersionsCommand(const CommandLine& line, std::ostream& out, std::ostream& err)
    : line_(line), out_(out), err_(err) {}

int VersionsCommand::Run() {
  std::string error;
  auto options = Parse(line_.commandArguments, error);
  if (!options) {
    err_ << "corvalink-sync: " << error << std::endl;
    return ClientCommands::kUsage;
  }
  if (!ClientSetup::PrepareCommand(line_.timeScale, err_)) return ClientCommands::kNoAccount;
  return Versions(*options);
}

int VersionsCommand::Versions(const Options& options) {
  auto fail = [this](const std::string& text) {
    err_ << text << std::endl;
    return ClientCommands::kFailed;
  };
  std::error_code ec;
  const std::string path = fs::absolute(options.path, ec).lexically_normal().string();
  if (!fs::is_regular_file(path, ec)) return fail("No such file: " + options.path);

  ServerVersionService service;
  // Every step runs on this thread: nothing is posted to a main loop.
  VersionWindowController window(service, [](std::function<void()>) {}, path);
  if (!window.file()) return fail(VersionWindowController::kNotInStorage);
  if (!window.GetVersionsForFile()) return fail(VersionWindowController::kListFailed);
  const auto versions = window.versions();
  auto find = [&](const std::string& number) -> const StorageVersionInfo* {
    auto it = std::find_if(versions.begin(), versions.end(), [&](const auto& v) { return v.Version == number; });
    return it == versions.end() ? nullptr : &*it;
  };

  if (!options.restore.empty()) {
    if (!find(options.restore)) return fail(VersionWindowController::kVersionNotFound);
    std::string message = window.RestoreVersion(options.restore);
    if (!message.empty()) return fail(message);
    out_ << "Version " << options.restore << " is the file's content on the server now." << std::endl;
    // The running client lists the storage again at once and brings the file back.
    CommandLine syncNow = line_;
    syncNow.command = "sync-now";
    syncNow.commandArguments.clear();
    std::istringstream none;
    std::ostringstream quiet;
    if (TerminalCommand(syncNow, none, quiet, quiet).Run() == ClientCommands::kDone) {
      out_ << "The running client syncs it now." << std::endl;
    } else {
      out_ << "The file here follows with the next sync." << std::endl;
    }
    return ClientCommands::kDone;
  }

  if (!options.save.empty()) {
    const StorageVersionInfo* version = find(options.save);
    if (!version) return fail(VersionWindowController::kVersionNotFound);
    fs::path target = fs::absolute(options.destination, ec).lexically_normal();
    if (fs::is_directory(target, ec)) target /= fs::path(path).filename();
    if (target.string() == path) return fail("Restore the version with --restore rather than saving it over the file.");
    std::string message = window.DownloadFile(*version, target.string());
    if (!message.empty()) return fail(message);
    out_ << VersionWindowController::SavedText(options.save, target.string()) << std::endl;
    if (VersionWindowController::IsInsideStorage(target.string())) {
      out_ << "It lies inside a storage: the next sync uploads it as a file of its own." << std::endl;
    }
    return ClientCommands::kDone;
  }

  if (versions.empty()) {
    out_ << "The server keeps no earlier versions of " << path << "." << std::endl;
    return ClientCommands::kDone;
  }
  const auto rows = window.Rows();
  std::size_t widths[3] = {7, 16, 11};
  for (const auto& row : rows) {
    widths[0] = std::max(widths[0], row.version.size());
    widths[1] = std::max(widths[1], row.modified.size());
    widths[2] = std::max(widths[2], row.modifiedBy.size());
  }
  out_ << "  " << Padded("Version", widths[0]) << "  " << Padded("Modified", widths[1]) << "  "
       << Padded("Modified by", widths[2]) << "  Size" << std::endl;
  for (const auto& row : rows) {
    out_ << "  " << Padded(row.version, widths[0]) << "  " << Padded(row.modified, widths[1]) << "  "
         << Padded(row.modifiedBy, widths[2]) << "  " << row.size << std::endl;
  }
  return ClientCommands::kDone;
}
