#pragma once
// ViewSharedFilesController: the workflow of the shared files view without any
// widget. Shared In lists what others shared with the user, Shared Out what the
// user shared; each first by person (grouped under their first letter), then a
// person's items, then the inside of a shared folder. It downloads Shared In
// files into the "Shared In" cache, clears that cache, and on Shared Out ends,
// re-announces and extends shares.
//
// Lives on the main thread: every operation is called there; the server calls
// run on workers and their results come back through the main-thread hop it is
// given. The view redraws on onChange (rows, page, busy) and shows onMessage's
// texts; questions go to the view's ask and are answered on the main thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "SharedFilesService.h"
#include "WindowWorker.h"

class ViewSharedFilesController {
 public:
  using Post = std::function<void(std::function<void()>)>;
  using Clock = std::chrono::system_clock;
  // A question with "Yes" and "No" under a title; true for "Yes".
  using Ask = std::function<bool(const std::string& title, const std::string& question)>;

  enum WindowState { kSharedIn = 0, kSharedOut = 1 };
  enum class Level { People, Items, Folder };

  static constexpr const char* kOwners = "Owners";
  static constexpr const char* kRecipients = "Recipients";
  static constexpr const char* kClearQuestion =
      "All your existing Shared In cache will be removed. Do you wish to proceed?";
  static constexpr const char* kWarning = "Warning";
  static constexpr const char* kUnshareOne = "Are you sure want to unshare this item?";
  static constexpr const char* kUnshareMany = "Are you sure want to unshare these files?";
  static constexpr const char* kUnshared = "Files succesfully unshared";
  static constexpr const char* kUnshareError = "Some error occured during files unsharing";
  static constexpr const char* kExtended = "This document(s) was shared successfully";
  static constexpr const char* kNoConnection = "The server cannot be reached now, please try again later.";
  static constexpr const char* kResent = "The notice was sent again.";
  static constexpr const char* kNotLocated =
      "This file cannot be located on your local drive. Please wait for it be downloaded.";
  static constexpr const char* kPersonMark = "\xE2\xA0\x80";  // U+2800 between a name and its address
  static constexpr std::size_t kPageSize = 200;

  struct Row {
    enum Kind { Group, Person, Up, Item } kind = Item;
    std::string name;     // the letter, the person, "..", or the item's file name
    WSFileProperty item;  // Item rows
    std::string localPath;  // Item rows of Shared In: the place in the cache; "" when its name is refused
  };

  // A row of the sheet that lists the shares of an item, one per recipient.
  struct ShareRow {
    bool chb = false;
    std::string name;  // the recipient, as PersonOf
    std::string file_name, shareId, shareGroup;
    bool isFolder = false;
    WSDate kSharedAt;
  };

  ViewSharedFilesController(SharedFilesService& service, Post toMain);
  ~ViewSharedFilesController();

  // --- Navigation; each loads from the server on a worker ---
  void SelectTab(WindowState state);  // and shows its people
  void GetRecipientsList();
  void DoubleClickRecipient(const std::string& person);
  void DoubleClickFolder(const WSFileProperty& folder);
  void DoubleClickGoUp();
  void Refresh();  // the current level again
  void SetSortDirection(bool ascending);
  void SearchBoxAction(const std::string& text);
  void ShowPage(std::size_t page);
  std::size_t PageCount() const;
  std::vector<Row> PageRows() const;

  // --- Actions on items of the current list ---
  // Shared In only: every file of the items (a folder's walked) into the cache;
  // a file that is there already is skipped. The message tells the count.
  void DownloadFileAsync(std::vector<WSFileProperty> items);
  void StopDownloading();
  // Shared In only. With items: their cached copies go, with no question;
  // without: after the question, all of the cache.
  void ClearCache(const std::vector<WSFileProperty>& items, const Ask& ask);
  // Shared Out only.
  void UnshareSlectedFiles(const std::vector<WSFileProperty>& items, const Ask& ask);
  // Reads Shared Out whole and hands open the rows of a sheet of the items'
  // shares, the resend sheet or the edit sheet (on the main thread):
  // RecipientsOf the items, which must be a person's items.
  void loadDataForTable(const std::vector<WSFileProperty>& items, std::function<void(std::vector<ShareRow>)> open);
  // For each chosen share, checked, then the other recipients of the same item
  // shared by the same call (same share group and name), not checked.
  static std::vector<ShareRow> RecipientsOf(const std::vector<WSFileProperty>& chosen,
                                            const std::vector<WSFileProperty>& all);
  // The share ids of the checked rows, each once (the edit sheet's GetResultID).
  static std::vector<std::string> SearcIDForRecipients(const std::vector<ShareRow>& rows);
  // The notice again for the checked rows; nothing when none is checked.
  void ResendEmail(const std::vector<ShareRow>& rows);
  // Whether ShareFilesExtend2's answer means the shares were extended.
  static bool ExtendSucceeded(const std::string& result);
  // The edit sheet: a new expiry for the checked rows' shares (nothing: no
  // expiry), or their end, with no question; then back to Shared Out's people.
  void ExtendShare(const std::vector<ShareRow>& rows, std::optional<Clock::time_point> until);
  void UnshareLinks(const std::vector<ShareRow>& rows);

  // Where an item of the current list lies in the cache; "" when a name of the
  // server cannot be a local name.
  std::string GetLocalPathForWSFileProperty(const WSFileProperty& item) const;
  // "Full⠀(owner)", or the owner alone when there is no full name.
  static std::string PersonOf(const WSFileProperty& item);
  // Folders first when ascending, names without regard to case.
  static void SortSharedFilesArray(std::vector<WSFileProperty>& items, bool ascending);

  std::function<void()> onChange;
  std::function<void(const std::string&)> onMessage;

  int currentWindowState = kSharedIn;
  Level level = Level::People;
  std::string currentFolderId = "0";
  std::string currentFolderPath;      // inside the shared folder, "\\" separated
  std::string currentFolderRootPath;  // the cache name of the shared folder
  std::string currentRecipientName;
  bool ascendingSortDirection = true;
  bool isBusy = false;
  std::size_t page = 0;
  std::string labelTitleTable = kOwners;
  std::string lastUpdate;  // "Last Update:%@" after a download
  std::vector<Row> rows, originalArrayData;

 private:
  struct Place {
    Level level;
    std::string folderId, folderPath, rootPath;
  };
  // Lists on a worker; toRows makes the rows on the main thread.
  void Load(std::function<std::vector<WSFileProperty>(SharedFilesService&, const std::string& token)> fetch,
            std::function<std::vector<Row>(std::vector<WSFileProperty>)> toRows);
  std::vector<Row> ItemRows(std::vector<WSFileProperty> items, bool up) const;
  void LoadItems();
  void LoadFolder();
  void Tell(const std::string& text);
  void Changed();
  bool sharedIn() const { return currentWindowState == kSharedIn; }
  static std::string JoinIds(const std::vector<std::string>& ids);
  // Then the level shown is read again, or, from the edit sheet, the people.
  void Unshare(const std::vector<std::string>& ids, bool toPeople);

  SharedFilesService& service_;
  std::vector<Place> stack_;  // the way back out of folders
  ServerCallWorker worker_;  // last: joined before the rest goes away
};
