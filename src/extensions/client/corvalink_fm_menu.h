/* What the file manager plug-ins show, whatever the file manager: the badge of
 * each state and the context menu entries a selection gets. Pure functions of
 * what the client answered (cv_fm_storages, cv_fm_windows, cv_fm_state), so each
 * plug-in only maps them onto its own menu and icon types. */
#ifndef CORVALINK_FM_MENU_H
#define CORVALINK_FM_MENU_H

#ifdef __cplusplus
extern "C" {
#endif

/* The emblem icon (installed in the hicolor theme) of a CvFmState, or NULL
 * for a state without a badge. */
const char *cv_fm_emblem(int state);

/* 1 when path is the storages root or below it. */
int cv_fm_in_storages(const char *root, const char *path);

typedef enum {
  CV_FM_MENU_NONE = 0,
  CV_FM_MENU_WINDOWS, /* every item inside a storage, none a storage's own folder */
  CV_FM_MENU_SEND_TO  /* every item outside the storages root */
} CvFmMenu;
/* Which entries the context menu of a selection of local paths offers. */
CvFmMenu cv_fm_menu_for(const char *root, const char *const *paths, int count);

typedef struct {
  const char *command, *label, *tip;
} CvFmEntry;
enum { CV_FM_MAX_WINDOW_ENTRIES = 3 };
/* The window entries of a CV_FM_MENU_WINDOWS selection, in menu order: "Share
 * inside", "Share outside" and, on one file, "Versions", as far as commands
 * (from cv_fm_windows) lists them. Fills entries (room for
 * CV_FM_MAX_WINDOW_ENTRIES); their number. */
int cv_fm_window_entries(const char *const *commands, int count, int one_file, const CvFmEntry **entries);

/* The send-to entry: its submenu holds one entry per storage name. */
extern const CvFmEntry cv_fm_send_to_entry;

#ifdef __cplusplus
}
#endif

#endif
