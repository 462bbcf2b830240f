/* The GNOME Files extension of Corvalink Sync: a badge (emblem) on each file and folder of
 * a storage by the state the running client holds for it, and the client's
 * commands in the context menu: "Share inside" and "Share outside" on items of
 * a storage, "Send to Corvalink" on items outside the storages. Everything runs
 * on the file manager's main thread with a short time-out; when the client is
 * not running the extension shows nothing and asks again a few seconds later,
 * so the file manager never waits on it. Redraws come from the client's subscription: only the files whose
 * state changed are asked again. G_MESSAGES_DEBUG=CorvalinkNautilus logs what it
 * shows. */

#define G_LOG_DOMAIN "CorvalinkNautilus"

#include <gio/gio.h>
#include <glib-unix.h>
#include <nautilus-extension.h>
#include <string.h>

#include "corvalink_fm_client.h"
#include "corvalink_fm_menu.h"

#define CV_EXPORT __attribute__((visibility("default")))

enum { kAnswerTimeoutMs = 200, kRetrySeconds = 5, kSendTimeoutMs = 10 * 60 * 1000, kRememberedLimit = 100000 };

typedef struct {
  GObject parent;
} CvNautilusProvider;
typedef struct {
  GObjectClass parent_class;
} CvNautilusProviderClass;

static void cv_info_provider_init(NautilusInfoProviderInterface *iface);
static void cv_menu_provider_init(NautilusMenuProviderInterface *iface);

G_DEFINE_DYNAMIC_TYPE_EXTENDED(CvNautilusProvider, cv_nautilus_provider, G_TYPE_OBJECT, 0,
                               G_IMPLEMENT_INTERFACE_DYNAMIC(NAUTILUS_TYPE_INFO_PROVIDER, cv_info_provider_init)
                                   G_IMPLEMENT_INTERFACE_DYNAMIC(NAUTILUS_TYPE_MENU_PROVIDER, cv_menu_provider_init))

/* The one session and subscription of this file manager process. */
static char *socket_path;
static CvFmClient *session;
static gint64 session_retry_at;
static char *storages_root;
static GPtrArray *storage_names;
static CvFmClient *subscription;
static guint subscription_watch;
static guint subscription_retry;
/* The files of the storages the file manager asked about (any local file while
 * the client is away, as the storages are not known then): when the client goes
 * or comes back they are asked again, so that badges never stay stale and files
 * already on screen get theirs. */
static GHashTable *asked;
static guint ask_again_source;

static gboolean ask_again(gpointer data);

static void drop_session(void) {
  cv_fm_close(session);
  session = NULL;
  session_retry_at = g_get_monotonic_time() + kRetrySeconds * G_USEC_PER_SEC;
  /* The client runs but did not answer in time: its files are asked again a
   * little later, as nothing else would ask (while it is away, its subscription
   * coming back does). */
  if (subscription && !ask_again_source) ask_again_source = g_timeout_add_seconds(kRetrySeconds + 1, ask_again, NULL);
}

static gboolean refresh_storages(void) {
  const char *root = NULL;
  const char *const *names = NULL;
  int count = cv_fm_storages(session, &root, &names);
  if (count < 0) return FALSE;
  g_free(storages_root);
  storages_root = g_strdup(root);
  g_ptr_array_set_size(storage_names, 0);
  for (int i = 0; i < count; ++i) g_ptr_array_add(storage_names, g_strdup(names[i]));
  return TRUE;
}

static void remember(const char *path) {
  if (g_hash_table_size(asked) < kRememberedLimit) g_hash_table_add(asked, g_strdup(path));
}

/* Has the file manager ask again about every file it still shows. */
static gboolean ask_again(gpointer data) {
  ask_again_source = 0;
  g_debug("asking again about %u files", g_hash_table_size(asked));
  GHashTableIter iter;
  gpointer path;
  g_hash_table_iter_init(&iter, asked);
  while (g_hash_table_iter_next(&iter, &path, NULL)) {
    g_autoptr(GFile) location = g_file_new_for_path(path);
    NautilusFileInfo *file = nautilus_file_info_lookup(location);
    if (!file) {
      g_hash_table_iter_remove(&iter);  // no longer shown
      continue;
    }
    nautilus_file_info_invalidate_extension_info(file);
    g_object_unref(file);
  }
  return G_SOURCE_REMOVE;
}

/* From the main loop, not inside a call of the file manager. */
static void schedule_ask_again(void) {
  if (!ask_again_source && g_hash_table_size(asked) > 0) ask_again_source = g_idle_add(ask_again, NULL);
}

/* The session, or NULL while the client is away. */
static CvFmClient *ensure_session(void) {
  if (session || g_get_monotonic_time() < session_retry_at) return session;
  session = cv_fm_open(socket_path, kAnswerTimeoutMs);
  if (!session || !refresh_storages()) {
    g_debug("no client answers on %s", socket_path);
    drop_session();
  } else {
    schedule_ask_again();
  }
  return session;
}

static gboolean in_storages(const char *path) { return cv_fm_in_storages(storages_root, path); }

static char *path_of(NautilusFileInfo *file) {
  GFile *location = nautilus_file_info_get_location(file);
  char *path = location ? g_file_get_path(location) : NULL;
  g_clear_object(&location);
  return path;
}

static NautilusOperationResult cv_update_file_info(NautilusInfoProvider *provider, NautilusFileInfo *file,
                                                   GClosure *update_complete, NautilusOperationHandle **handle) {
  g_autofree char *path = path_of(file);
  if (!path) return NAUTILUS_OPERATION_COMPLETE;
  /* Without a session the storages may not be known yet: any local file may be one. */
  if (!ensure_session()) {
    if (!storages_root || in_storages(path)) remember(path);
    return NAUTILUS_OPERATION_COMPLETE;
  }
  if (!in_storages(path)) return NAUTILUS_OPERATION_COMPLETE;
  remember(path);
  int state = cv_fm_state(session, path);
  if (state < 0) {
    drop_session();
    return NAUTILUS_OPERATION_COMPLETE;
  }
  const char *emblem = cv_fm_emblem(state);
  if (emblem) {
    nautilus_file_info_add_emblem(file, emblem);
    g_debug("emblem %s on %s", emblem, path);
  }
  return NAUTILUS_OPERATION_COMPLETE;
}

static void cv_info_provider_init(NautilusInfoProviderInterface *iface) {
  iface->update_file_info = cv_update_file_info;
}

/* Send-to runs on a thread of its own with a session of its own: a large copy
 * must not hold the file manager. */
typedef struct {
  char *storage;
  GStrv paths;
} SendJob;

static gpointer send_in_background(gpointer data) {
  SendJob *job = data;
  CvFmClient *client = cv_fm_open(socket_path, kSendTimeoutMs);
  int sent = cv_fm_send_to(client, job->storage, (const char *const *)job->paths, (int)g_strv_length(job->paths));
  g_debug("send to %s: %s", job->storage, sent > 0 ? "sent" : "not sent");
  cv_fm_close(client);
  g_free(job->storage);
  g_strfreev(job->paths);
  g_free(job);
  return NULL;
}

static void on_send_activate(NautilusMenuItem *item, gpointer user_data) {
  SendJob *job = g_new0(SendJob, 1);
  job->storage = g_strdup(g_object_get_data(G_OBJECT(item), "cv-storage"));
  job->paths = g_strdupv(g_object_get_data(G_OBJECT(item), "cv-paths"));
  g_thread_unref(g_thread_new("cv-send-to", send_in_background, job));
}

/* The selection's local paths when the menu for them is wanted, else NULL. */
static GStrv paths_for(GList *files, CvFmMenu wanted) {
  GStrvBuilder *builder = g_strv_builder_new();
  for (GList *l = files; l; l = l->next) {
    g_autofree char *path = path_of(l->data);
    g_strv_builder_add(builder, path ? path : "");
  }
  GStrv paths = g_strv_builder_end(builder);
  g_strv_builder_unref(builder);
  if (cv_fm_menu_for(storages_root, (const char *const *)paths, (int)g_strv_length(paths)) == wanted) return paths;
  g_strfreev(paths);
  return NULL;
}

static void on_share_activate(NautilusMenuItem *item, gpointer user_data) {
  const char *command = g_object_get_data(G_OBJECT(item), "cv-command");
  GStrv paths = g_object_get_data(G_OBJECT(item), "cv-paths");
  /* The client only posts the window: the answer is as quick as a badge's. */
  if (!ensure_session()) return;
  int opened = cv_fm_open_window(session, command, (const char *const *)paths, (int)g_strv_length(paths));
  if (opened < 0) drop_session();
  g_debug("%s: %s", command, opened > 0 ? "window opened" : "refused");
}

/* "Share inside", "Share outside" and, on one file, "Versions", as far as the
 * client opens their windows. */
static GList *share_items(GList *files) {
  g_auto(GStrv) paths = paths_for(files, CV_FM_MENU_WINDOWS);
  const char *const *commands = NULL;
  int count = paths ? cv_fm_windows(session, &commands) : 0;
  if (count < 0) drop_session();
  const gboolean one_file = files && !files->next && !nautilus_file_info_is_directory(files->data);
  const CvFmEntry *entries[CV_FM_MAX_WINDOW_ENTRIES];
  const int offered = count > 0 ? cv_fm_window_entries(commands, count, one_file, entries) : 0;
  GList *items = NULL;
  for (int e = 0; e < offered; ++e) {
    g_autofree char *id = g_strconcat("CorvalinkSync::", entries[e]->command, NULL);
    NautilusMenuItem *item = nautilus_menu_item_new(id, entries[e]->label, entries[e]->tip, NULL);
    g_object_set_data(G_OBJECT(item), "cv-command", (gpointer)entries[e]->command);
    g_object_set_data_full(G_OBJECT(item), "cv-paths", g_strdupv(paths), (GDestroyNotify)g_strfreev);
    g_signal_connect(item, "activate", G_CALLBACK(on_share_activate), NULL);
    items = g_list_append(items, item);
  }
  return items;
}

static GList *cv_get_file_items(NautilusMenuProvider *provider, GList *files) {
  if (!ensure_session()) return NULL;
  if (!refresh_storages()) {
    drop_session();
    return NULL;
  }
  GList *shares = share_items(files);
  if (shares) return shares;
  GStrv paths = paths_for(files, CV_FM_MENU_SEND_TO);
  if (!paths || storage_names->len == 0 || !session) {
    g_strfreev(paths);
    return NULL;
  }
  NautilusMenuItem *top = nautilus_menu_item_new("CorvalinkSync::SendTo", cv_fm_send_to_entry.label,
                                                 cv_fm_send_to_entry.tip, NULL);
  NautilusMenu *submenu = nautilus_menu_new();
  for (guint i = 0; i < storage_names->len; ++i) {
    const char *name = g_ptr_array_index(storage_names, i);
    g_autofree char *id = g_strconcat("CorvalinkSync::SendTo::", name, NULL);
    NautilusMenuItem *item = nautilus_menu_item_new(id, name, NULL, NULL);
    g_object_set_data_full(G_OBJECT(item), "cv-storage", g_strdup(name), g_free);
    g_object_set_data_full(G_OBJECT(item), "cv-paths", g_strdupv(paths), (GDestroyNotify)g_strfreev);
    g_signal_connect(item, "activate", G_CALLBACK(on_send_activate), NULL);
    nautilus_menu_append_item(submenu, item);
    g_object_unref(item);
  }
  nautilus_menu_item_set_submenu(top, submenu);
  g_object_unref(submenu);
  g_strfreev(paths);
  return g_list_append(NULL, top);
}

static void cv_menu_provider_init(NautilusMenuProviderInterface *iface) { iface->get_file_items = cv_get_file_items; }

static void cv_nautilus_provider_init(CvNautilusProvider *self) {}
static void cv_nautilus_provider_class_init(CvNautilusProviderClass *klass) {}
static void cv_nautilus_provider_class_finalize(CvNautilusProviderClass *klass) {}

static void on_changed(const char *path, void *data) {
  g_autoptr(GFile) location = g_file_new_for_path(path);
  NautilusFileInfo *file = nautilus_file_info_lookup(location);
  if (!file) return;  // not shown anywhere: it is asked when it is
  g_debug("changed %s", path);
  nautilus_file_info_invalidate_extension_info(file);
  g_object_unref(file);
}

static void subscribe(void);

static gboolean retry_subscribe(gpointer data) {
  subscription_retry = 0;
  subscribe();
  return G_SOURCE_REMOVE;
}

static void end_subscription(void) {
  if (subscription_watch) g_source_remove(subscription_watch);
  subscription_watch = 0;
  cv_fm_close(subscription);
  subscription = NULL;
}

static gboolean on_subscription_input(gint fd, GIOCondition condition, gpointer data) {
  if (cv_fm_read_changed(subscription, on_changed, NULL) == 0) return G_SOURCE_CONTINUE;
  subscription_watch = 0;  // removed by the return below
  cv_fm_close(subscription);
  subscription = NULL;
  /* The client went: its badges are no longer true. */
  g_debug("the client went");
  drop_session();
  schedule_ask_again();
  subscription_retry = g_timeout_add_seconds(kRetrySeconds, retry_subscribe, NULL);
  return G_SOURCE_REMOVE;
}

static void subscribe(void) {
  subscription = cv_fm_subscribe(socket_path, kAnswerTimeoutMs);
  if (subscription) {
    /* The client is (back) up: what was asked while it was away is asked now. */
    g_debug("subscribed on %s", socket_path);
    session_retry_at = 0;
    schedule_ask_again();
    subscription_watch = g_unix_fd_add(cv_fm_fd(subscription), G_IO_IN | G_IO_HUP | G_IO_ERR, on_subscription_input, NULL);
  } else {
    subscription_retry = g_timeout_add_seconds(kRetrySeconds, retry_subscribe, NULL);
  }
}

static GType provider_types[1];

CV_EXPORT void nautilus_module_initialize(GTypeModule *module) {
  cv_nautilus_provider_register_type(module);
  provider_types[0] = cv_nautilus_provider_get_type();
  socket_path = cv_fm_socket_path();
  storage_names = g_ptr_array_new_with_free_func(g_free);
  asked = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, NULL);
  subscribe();
}

CV_EXPORT void nautilus_module_shutdown(void) {
  end_subscription();
  if (subscription_retry) g_source_remove(subscription_retry);
  subscription_retry = 0;
  if (ask_again_source) g_source_remove(ask_again_source);
  ask_again_source = 0;
  g_clear_pointer(&asked, g_hash_table_unref);
  cv_fm_close(session);
  session = NULL;
  session_retry_at = 0;
  g_clear_pointer(&storages_root, g_free);
  g_clear_pointer(&storage_names, g_ptr_array_unref);
  g_clear_pointer(&socket_path, free);
}

CV_EXPORT void nautilus_module_list_types(const GType **types, int *num_types) {
  *types = provider_types;
  *num_types = G_N_ELEMENTS(provider_types);
}
