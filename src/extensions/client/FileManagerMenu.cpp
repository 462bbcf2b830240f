// The plug-ins' shared choice of badges and context menu entries.

#include <cstring>

#include "corvalink_fm_client.h"
#include "corvalink_fm_menu.h"

namespace {

constexpr CvFmEntry kWindowEntries[] = {
    {"ShareToInternal", "Share inside", "Share with people of your organisation"},
    {"ShareToExternal", "Share outside", "Share with anyone by e-mail"},
    {"ViewVersions", "Versions", "The versions the server keeps of this file"},
};
static_assert(sizeof kWindowEntries / sizeof *kWindowEntries == CV_FM_MAX_WINDOW_ENTRIES);

// 1 when path lies below a storage's own folder.
bool InAStorage(const char* root, const char* path) {
  if (!cv_fm_in_storages(root, path)) return false;
  const char* rest = path + std::strlen(root);
  const char* inner = *rest == '/' ? std::strchr(rest + 1, '/') : nullptr;
  return inner && inner[1] != '\0';
}

}  // namespace

extern "C" {

const CvFmEntry cv_fm_send_to_entry = {"SendTo", "Send to Corvalink", "Copy into the root of a storage"};

const char* cv_fm_emblem(int state) {
  switch (state) {
    case CV_FM_STATE_IN_STEP:
      return "corvalink-cached_circle_tick-004";
    case CV_FM_STATE_IN_WORK:
      return "corvalink-cached-processing-hourglass-004";
    case CV_FM_STATE_FAILED:
      return "icon-disconnect-004";
    default:
      return nullptr;
  }
}

int cv_fm_in_storages(const char* root, const char* path) {
  if (!root || !*root || !path) return 0;
  const std::size_t length = std::strlen(root);
  return std::strncmp(path, root, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

CvFmMenu cv_fm_menu_for(const char* root, const char* const* paths, int count) {
  if (count <= 0 || !root || !*root) return CV_FM_MENU_NONE;
  int inside = 0, outside = 0;
  for (int i = 0; i < count; ++i) {
    if (!paths[i] || paths[i][0] != '/') return CV_FM_MENU_NONE;
    inside += InAStorage(root, paths[i]);
    outside += !cv_fm_in_storages(root, paths[i]);
  }
  return inside == count ? CV_FM_MENU_WINDOWS : outside == count ? CV_FM_MENU_SEND_TO : CV_FM_MENU_NONE;
}

int cv_fm_window_entries(const char* const* commands, int count, int one_file, const CvFmEntry** entries) {
  int offered = 0;
  for (const CvFmEntry& entry : kWindowEntries) {
    // The server keeps versions of files alone.
    if (std::strcmp(entry.command, "ViewVersions") == 0 && !one_file) continue;
    for (int i = 0; i < count; ++i) {
      if (commands[i] && std::strcmp(commands[i], entry.command) == 0) {
        entries[offered++] = &entry;
        break;
      }
    }
  }
  return offered;
}

}  // extern "C"
