#include "CorvalinkActionPlugin.h"

#include <KFileItem>
#include <KFileItemListProperties>
#include <KPluginFactory>
#include <QAction>
#include <QLoggingCategory>
#include <QMenu>
#include <cstdlib>
#include <thread>

#include "corvalink_fm_client.h"
#include "corvalink_fm_menu.h"

K_PLUGIN_CLASS_WITH_JSON(CorvalinkActionPlugin, "corvalink-actions.json")

Q_LOGGING_CATEGORY(cvActions, "corvalink.dolphin.actions", QtWarningMsg)

namespace {

constexpr int kAnswerTimeoutMs = 200;
constexpr int kSendTimeoutMs = 10 * 60 * 1000;

std::vector<const char*> CStrings(const std::vector<std::string>& strings) {
  std::vector<const char*> pointers;
  for (const std::string& s : strings) pointers.push_back(s.c_str());
  return pointers;
}

QAction* NewAction(const CvFmEntry& entry, QObject* parent) {
  auto* action = new QAction(QString::fromUtf8(entry.label), parent);
  if (entry.tip) action->setToolTip(QString::fromUtf8(entry.tip));
  return action;
}

}  // namespace

CorvalinkActionPlugin::CorvalinkActionPlugin(QObject* parent, const QVariantList&)
    : KAbstractFileItemActionPlugin(parent) {
  char* path = cv_fm_socket_path();
  socketPath_ = path ? path : "";
  free(path);
}

QList<QAction*> CorvalinkActionPlugin::actions(const KFileItemListProperties& items, QWidget* parentWidget) {
  // Local files only; an item of "desktop:/" still has its path on disk.
  std::vector<std::string> paths;
  for (const KFileItem& item : items.items()) {
    if (item.localPath().isEmpty()) return {};
    paths.push_back(item.localPath().toStdString());
  }
  CvFmClient* session = cv_fm_open(socketPath_.c_str(), kAnswerTimeoutMs);
  const char* root = nullptr;
  const char* const* names = nullptr;
  const int storages = cv_fm_storages(session, &root, &names);
  const CvFmMenu menu = storages < 0 ? CV_FM_MENU_NONE : cv_fm_menu_for(root, CStrings(paths).data(), int(paths.size()));
  QList<QAction*> actions;
  if (menu == CV_FM_MENU_WINDOWS) {
    const char* const* commands = nullptr;
    const int count = cv_fm_windows(session, &commands);
    const bool oneFile = items.items().size() == 1 && !items.items().first().isDir();
    const CvFmEntry* entries[CV_FM_MAX_WINDOW_ENTRIES];
    for (int e = 0, offered = cv_fm_window_entries(commands, count, oneFile, entries); e < offered; ++e) {
      QAction* action = NewAction(*entries[e], parentWidget);
      connect(action, &QAction::triggered, this,
              [this, command = std::string(entries[e]->command), paths] { OpenWindow(command, paths); });
      actions.append(action);
    }
  } else if (menu == CV_FM_MENU_SEND_TO && storages > 0) {
    QAction* top = NewAction(cv_fm_send_to_entry, parentWidget);
    auto* submenu = new QMenu(parentWidget);
    for (int i = 0; i < storages; ++i) {
      QAction* storage = submenu->addAction(QString::fromUtf8(names[i]));
      connect(storage, &QAction::triggered, this, [this, name = std::string(names[i]), paths] { SendTo(name, paths); });
    }
    top->setMenu(submenu);
    connect(top, &QObject::destroyed, submenu, [submenu] { delete submenu; });
    actions.append(top);
  }
  cv_fm_close(session);
  return actions;
}

void CorvalinkActionPlugin::OpenWindow(const std::string& command, const std::vector<std::string>& paths) const {
  // The client only posts the window: the answer is as quick as a badge's.
  CvFmClient* session = cv_fm_open(socketPath_.c_str(), kAnswerTimeoutMs);
  const int opened = cv_fm_open_window(session, command.c_str(), CStrings(paths).data(), int(paths.size()));
  cv_fm_close(session);
  qCDebug(cvActions) << command.c_str() << (opened > 0 ? "window opened" : "refused");
}

void CorvalinkActionPlugin::SendTo(const std::string& storage, const std::vector<std::string>& paths) const {
  // A large copy must not hold Dolphin: a thread and a session of its own.
  std::thread([socketPath = socketPath_, storage, paths] {
    CvFmClient* session = cv_fm_open(socketPath.c_str(), kSendTimeoutMs);
    const int sent = cv_fm_send_to(session, storage.c_str(), CStrings(paths).data(), int(paths.size()));
    cv_fm_close(session);
    qCDebug(cvActions) << "send to" << storage.c_str() << (sent > 0 ? "sent" : "not sent");
  }).detach();
}

#include "CorvalinkActionPlugin.moc"
