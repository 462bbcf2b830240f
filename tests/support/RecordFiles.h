#pragma once
// What the sync recorded, read back for a test's checks.

#include <optional>
#include <string>

#include "SyncRecords.h"

// The record of localPath in DownloadedFiles.xml; nothing when the file or the
// record is missing.
std::optional<CVFileForCompare> RecordOf(const std::string& localPath);
