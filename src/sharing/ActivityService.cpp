#include "ActivityService.h"

#include "AsyncFileCommonPart.h"
#include "CVHandler.h"
#include "ServerXMLParser.h"

std::optional<std::vector<WSUsageHistory>> ServerActivityService::GetUsageHistory(long pageNum) {
  return CVHandler::Instance().GetUsageHistory(pageNum);
}

std::optional<std::vector<CVFileForCompare>> ServerActivityService::readDownloadedFiles() {
  return ServerXMLParser().readDownloadedFiles();
}

bool ServerActivityService::SetNothingStatusForFile(const std::string& FileURL) {
  return AsyncFileCommonPart::SetNothingStatusForFile(FileURL);
}
