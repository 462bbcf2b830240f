/* The client side of the file manager channel of Corvalink Sync, for the file
 * manager plug-ins (C, GObject and Qt alike). Every exchange is bounded by the
 * time-out given at open: a client that is not running or does not answer makes
 * a call fail at once, never hang the file manager. Not thread-safe: one
 * CvFmClient per thread. */
#ifndef CORVALINK_FM_CLIENT_H
#define CORVALINK_FM_CLIENT_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct CvFmClient CvFmClient;

/* A folder's state is that of the files below it: failed when one failed, in
 * work when one is, else in step. */
typedef enum {
  CV_FM_STATE_NONE = 0, /* not in a storage, or never met: no badge */
  CV_FM_STATE_IN_STEP,
  CV_FM_STATE_IN_WORK,
  CV_FM_STATE_FAILED,
  CV_FM_STATE_FOLDER /* not answered any more: a folder has the state of its files */
} CvFmState;

/* $XDG_RUNTIME_DIR/corvalink-sync/corvalink-sync.socket, else the one in the
 * settings folder under $HOME; free() it. */
char *cv_fm_socket_path(void);

/* A request session, or NULL when no client answers. */
CvFmClient *cv_fm_open(const char *socket_path, int timeout_ms);
/* A subscription to the paths whose badge changed; poll cv_fm_fd for input. */
CvFmClient *cv_fm_subscribe(const char *socket_path, int timeout_ms);
void cv_fm_close(CvFmClient *client);
int cv_fm_fd(const CvFmClient *client);

/* A CvFmState, or -1 when the session broke (close it and open again later). */
int cv_fm_state(CvFmClient *client, const char *path);
/* The storages root and the storage names, valid until the next call on the
 * client; the number of names, or -1 when the session broke. */
int cv_fm_storages(CvFmClient *client, const char **root, const char *const **names);
/* Copies the items into the root of the storage, never over a name already
 * there: 1 when all were sent, 0 when some were not or the request was
 * refused, -1 when the session broke. */
int cv_fm_send_to(CvFmClient *client, const char *storage, const char *const *paths, int count);
/* The commands whose window the client opens now ("ShareToInternal",
 * "ShareToExternal"; none in a client without windows or where the policy closes
 * them), valid until the next call on the client; their number, or -1 when the
 * session broke. */
int cv_fm_windows(CvFmClient *client, const char *const **commands);
/* Asks the client to open a command's window on the items, without waiting for
 * the window: 1 when it opens, 0 when refused, -1 when the session broke. */
int cv_fm_open_window(CvFmClient *client, const char *command, const char *const *paths, int count);
/* Reads what the subscription has waiting and calls changed for each path:
 * 0 while it holds, -1 when it ended. */
int cv_fm_read_changed(CvFmClient *client, void (*changed)(const char *path, void *data), void *data);

#ifdef __cplusplus
}
#endif

#endif
