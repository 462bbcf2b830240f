#pragma once
// An upload request service of the tests: three requests in two sessions, two
// files in each, deletions recorded, a fetch writes "x" where it is told.

#include <fstream>

#include "UploadRequestService.h"

inline CVUploadRequest Request(std::string id, std::string session, std::string person, std::string guid) {
  CVUploadRequest request;
  request.reqID = std::move(id);
  request.reqSessionID = "s-" + session;
  request.reqSession = std::move(session);
  request.reqRecipientName = std::move(person);
  request.reqGuid = std::move(guid);
  return request;
}

class FakeUploadRequestService : public UploadRequestService {
 public:
  std::vector<std::string> deleted, fetched;
  std::string CheckConnectionAndGetWSToken() override { return "tok"; }
  std::vector<CVUploadRequest> GetUploadRequestsWithToken(const std::string&) override {
    return {Request("1", "Tax", "ann", "g1"), Request("2", "Tax", "joe", "g2"), Request("3", "Rent", "ann", "g3")};
  }
  bool DeleteUploadRequest(const std::string&, const std::vector<std::string>& ids) override {
    deleted.insert(deleted.end(), ids.begin(), ids.end());
    return true;
  }
  bool ResendRequestEmail(const std::string&, const std::vector<std::string>&) override { return true; }
  std::optional<std::vector<CVFileForCompare>> GetFilesListForUser(const std::string&, const std::string& root) override {
    CVFileForCompare a, b;
    a.localPath = root + "/Tax/ann/a.txt";
    b.localPath = root + "/Tax/ann/b.txt";
    return std::vector<CVFileForCompare>{a, b};
  }
  bool DownloadFile(const CVFileForCompare& file, const std::string&) override {
    fetched.push_back(file.localPath);
    return static_cast<bool>(std::ofstream(file.localPath) << "x");
  }
};

