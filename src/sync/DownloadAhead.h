#pragma once
// DownloadAhead: the next few plain downloads of the work list fetched into
// their temporary files while the loop is busy with the one before (WorkAhead).
// A download started here only writes its temporary file and hands it to the
// landing.
//
// Only a file that nothing stands in the way of is fetched ahead: its folder is
// there and its path is free. Such a file lands only where the path is still
// free, so a file the user puts there meanwhile is never replaced.
//
// Start, Take and Finish belong to the loop thread; Stop may come from any.

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "SyncRecords.h"
#include "WorkAhead.h"

class AsyncFileDownloader;

class DownloadAhead {
 public:
  static constexpr std::size_t kMostAhead = 3;  // with the loop's own, the request queue's four
  static constexpr std::int64_t kLargestFile = 8 << 20;

  struct Outcome {
    bool arrived = false;
    int localErrno = 0;  // the last failure of this machine's disk, 0 when none
  };
  // Runs one download with the downloader that Stop reaches; on a thread of its own.
  using Fetch = std::function<bool(const CVFileWithAction&, AsyncFileDownloader&)>;
  // A new downloader for each file, set up as the loop's own are.
  using MakeDownloader = std::function<std::shared_ptr<AsyncFileDownloader>()>;

  DownloadAhead(MakeDownloader make, Fetch fetch);
  DownloadAhead(const DownloadAhead&) = delete;
  DownloadAhead& operator=(const DownloadAhead&) = delete;

  // True for a download worth starting before the loop reaches it.
  static bool Qualifies(const CVFileWithAction& item);
  // Starts the first of next that qualify and do not run yet, up to kMostAhead at a time.
  void Start(const std::vector<CVFileWithAction>& next);
  // The end of the download started here for this item, waited for; nothing
  // when none was started, or one for another version of the file (stopped).
  std::optional<Outcome> Take(const CVFileWithAction& item);
  // Ends every download that runs here at once; their temporary files stay to
  // be resumed. Returns at once.
  void Stop();
  // Stops and waits for what still runs, which the loop never took.
  void Finish();
  std::size_t Running() const;

 private:
  WorkAhead<AsyncFileDownloader, Outcome> work_;
};
