#pragma once
// A shared files service of the tests: lists what it is given, records what it
// is asked, and "downloads" by writing "abc" where it is told.

#include <fstream>
#include <map>

#include "SharedFilesService.h"

inline WSFileProperty Item(std::string id, std::string name, bool folder = false, std::string owner = "a@x",
                           std::string full = "") {
  WSFileProperty item;
  item.share_id = std::move(id);
  item.file_name = std::move(name);
  item.isFolder = folder;
  item.owner = std::move(owner);
  item.ownerFullName = std::move(full);
  item.file_size = 3;
  return item;
}

class FakeSharedFilesService : public SharedFilesService {
 public:
  std::vector<WSFileProperty> top;
  std::map<std::pair<std::string, std::string>, std::vector<WSFileProperty>> inside;
  std::vector<std::string> downloads, deleted, resent;
  std::vector<std::pair<std::vector<std::string>, long>> extended;
  bool result = true;
  std::string CheckConnectionAndGetWSToken() override { return "tok"; }
  std::vector<WSFileProperty> GetFileList(bool, const std::string&, const std::string& path,
                                          const std::optional<std::string>& id) override {
    return id ? inside[{*id, path}] : top;
  }
  bool DeleteSharedLink(const std::string&, const std::string& ids) override {
    deleted.push_back(ids);
    return result;
  }
  bool ResendEmailShared(const std::string&, const std::string& ids) override {
    resent.push_back(ids);
    return result;
  }
  std::string ShareFilesExtend2(const std::vector<std::string>& ids, long validity, const std::string&) override {
    extended.emplace_back(ids, validity);
    return "0;";
  }
  bool DownloadSharing(const std::string& localPath, const std::string&, bool, const std::optional<std::string>&,
                       const std::string&, const AsyncSharedDownloader::Expected&) override {
    downloads.push_back(localPath);
    std::ofstream(localPath) << "abc";
    return true;
  }
  void StopDownloading() override {}
};

