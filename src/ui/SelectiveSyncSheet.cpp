#include "SelectiveSyncSheet.h"

#include <QPointer>
#include <QPushButton>
#include <QStyle>
#include <QTimer>
#include <QVBoxLayout>

#include "MainLoop.h"
#include "SettingsContext.h"

namespace {
constexpr int kRowRole = Qt::UserRole + 1;
constexpr std::size_t kBatch = 200;  // items made per turn of the event loop

Qt::CheckState CheckStateOf(int itemSynced) {
  if (itemSynced == SelectiveSyncTree::kChecked) return Qt::Checked;
  if (itemSynced == SelectiveSyncTree::kMixed) return Qt::PartiallyChecked;
  return Qt::Unchecked;
}
}  // namespace

SelectiveSyncSheet::SelectiveSyncSheet(const std::string& storageName, SettingsContext& settings, MainLoop& loop,
                                       std::function<void()> saved, QWidget* parent)
    : QDialog(parent),
      settings_(settings),
      loop_(loop),
      saved_(std::move(saved)),
      tree_(std::make_shared<SelectiveSyncTree>(storageName)),
      buttons_(QDialogButtonBox::Ok | QDialogButtonBox::Cancel) {
  setWindowTitle(QString::fromStdString("Folders of " + storageName));
  setObjectName("selectiveSyncSheet");
  setWindowModality(Qt::WindowModal);
  auto* layout = new QVBoxLayout(this);
  layout->addWidget(new QLabel("Choose the folders to keep on this computer:"));
  layout->addWidget(&view_, 1);
  layout->addWidget(&statusLabel_);
  layout->addWidget(&buttons_);
  view_.setObjectName("folderTree");
  view_.setAccessibleName(QString::fromStdString("Folders of " + storageName));
  view_.setHeaderHidden(true);
  view_.setUniformRowHeights(true);  // keeps long lists fast to lay out
  statusLabel_.setObjectName("statusLabel");
  statusLabel_.setAccessibleName("Loading state");
  buttons_.button(QDialogButtonBox::Ok)->setObjectName("okButton");
  buttons_.button(QDialogButtonBox::Ok)->setAccessibleName("Save the choice of folders");
  buttons_.button(QDialogButtonBox::Cancel)->setObjectName("cancelButton");
  buttons_.button(QDialogButtonBox::Cancel)->setAccessibleName("Cancel");
  connect(&buttons_, &QDialogButtonBox::accepted, this, &SelectiveSyncSheet::Save);
  connect(&buttons_, &QDialogButtonBox::rejected, this, &SelectiveSyncSheet::reject);
  connect(&view_, &QTreeWidget::itemExpanded, this, &SelectiveSyncSheet::Expanded);
  connect(&view_, &QTreeWidget::itemChanged, this, &SelectiveSyncSheet::CheckChanged);
  resize(460, 420);

  // Built from the stores, off the main thread, before the tree is shown.
  EnableUI(false);
  QPointer<SelectiveSyncSheet> self(this);
  settings_.RunInBackground<bool>(
      loop_, [tree = tree_] { return tree->loadChanges(), true; },
      [self](bool) {
        if (self) self->Loaded();
      });
}

void SelectiveSyncSheet::reject() {
  if (!busy_) QDialog::reject();
}

void SelectiveSyncSheet::EnableUI(bool enabled) {
  busy_ = !enabled;
  statusLabel_.setText(enabled ? "" : SelectiveSyncTree::kLoading);
  buttons_.setEnabled(enabled);
  // While a folder loads, no row may be opened or closed.
  view_.setItemsExpandable(enabled);
}

SelectiveSyncTree::Row* SelectiveSyncSheet::RowOf(QTreeWidgetItem* item) {
  return item ? reinterpret_cast<SelectiveSyncTree::Row*>(item->data(0, kRowRole).value<quintptr>()) : nullptr;
}

QTreeWidgetItem* SelectiveSyncSheet::MakeItem(SelectiveSyncTree::Row& row) {
  auto* item = new QTreeWidgetItem;
  item->setData(0, kRowRole, QVariant::fromValue(reinterpret_cast<quintptr>(&row)));
  item->setText(0, QString::fromStdString(row.itemName));
  if (row.placeholder) {
    item->setFlags(Qt::ItemIsEnabled);
    return item;
  }
  item->setIcon(0, style()->standardIcon(row.itemIsFolder ? QStyle::SP_DirIcon : QStyle::SP_FileIcon));
  item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
  item->setCheckState(0, CheckStateOf(row.itemSynced));
  if (!row.children.empty()) item->setChildIndicatorPolicy(QTreeWidgetItem::ShowIndicator);
  return item;
}

void SelectiveSyncSheet::FillChildren(QTreeWidgetItem* item) {
  SelectiveSyncTree::Row* row = RowOf(item);
  if (!row || item->childCount() > 0) return;
  if (row->children.empty()) item->setChildIndicatorPolicy(QTreeWidgetItem::DontShowIndicator);
  AddChildItems(item, 0);
}

void SelectiveSyncSheet::AddChildItems(QTreeWidgetItem* item, std::size_t from) {
  SelectiveSyncTree::Row* row = RowOf(item);
  const std::size_t to = std::min(row->children.size(), from + kBatch);
  QList<QTreeWidgetItem*> children;
  children.reserve(static_cast<qsizetype>(to - from));
  for (std::size_t i = from; i < to; ++i) children.append(MakeItem(*row->children[i]));
  drawing_ = true;
  item->addChildren(children);
  drawing_ = false;
  // Items are only ever taken from a folder that was loading, whose one child
  // is its placeholder: an item being filled stays.
  if (to < row->children.size()) QTimer::singleShot(0, this, [this, item, to] { AddChildItems(item, to); });
}

void SelectiveSyncSheet::Loaded() {
  drawing_ = true;
  QTreeWidgetItem* root = MakeItem(tree_->root());
  view_.addTopLevelItem(root);
  drawing_ = false;
  EnableUI(true);
  // The root opens at once, its folders loading from the server if need be: they
  // are what the user came to choose from.
  view_.setCurrentItem(root);
  root->setExpanded(true);
}

void SelectiveSyncSheet::Expanded(QTreeWidgetItem* item) {
  FillChildren(item);
  SelectiveSyncTree::Row* row = RowOf(item);
  if (!row || !row->NeedsLoading()) return;
  if (busy_) {
    item->setExpanded(false);
    return;
  }
  EnableUI(false);
  QPointer<SelectiveSyncSheet> self(this);
  const std::string path = row->itemPath;
  settings_.RunInBackground<std::optional<std::vector<CVSelectiveSyncItem>>>(
      loop_,
      [tree = tree_, path, &settings = settings_] {
        auto lock = settings.Exclusive();
        return tree->FetchFolder(path);
      },
      [self, item](std::optional<std::vector<CVSelectiveSyncItem>> items) {
        if (self) self->Listed(item, items);
      });
}

void SelectiveSyncSheet::Listed(QTreeWidgetItem* item, const std::optional<std::vector<CVSelectiveSyncItem>>& items) {
  SelectiveSyncTree::Row* row = RowOf(item);
  tree_->stopProgressAndPopulateTreeView(*row, items);
  drawing_ = true;
  qDeleteAll(item->takeChildren());
  drawing_ = false;
  FillChildren(item);
  EnableUI(true);
}

void SelectiveSyncSheet::CheckChanged(QTreeWidgetItem* item, int column) {
  SelectiveSyncTree::Row* row = RowOf(item);
  if (drawing_ || column != 0 || !row || row->placeholder) return;
  if (busy_) {
    DrawStates(item);  // a click while the tree is busy does not count
    return;
  }
  // A mixed row that was clicked turns checked: Qt hands it over as Checked.
  tree_->SetChecked(*row, item->checkState(0) == Qt::Checked);
  QTreeWidgetItem* top = item;
  while (top->parent()) top = top->parent();
  DrawStates(top);
}

void SelectiveSyncSheet::DrawStates(QTreeWidgetItem* item) {
  SelectiveSyncTree::Row* row = RowOf(item);
  if (!row || row->placeholder) return;
  drawing_ = true;
  item->setCheckState(0, CheckStateOf(row->itemSynced));
  drawing_ = false;
  for (int i = 0; i < item->childCount(); ++i) DrawStates(item->child(i));
}

void SelectiveSyncSheet::Save() {
  if (busy_) return;
  EnableUI(false);
  statusLabel_.setText("Saving...");
  QPointer<SelectiveSyncSheet> self(this);
  settings_.RunInBackground<bool>(
      loop_,
      [tree = tree_, &settings = settings_] {
        auto lock = settings.Exclusive();
        tree->saveChanges(settings.control());
        return true;
      },
      [self](bool) {
        if (!self) return;
        self->EnableUI(true);
        if (self->saved_) self->saved_();
        self->accept();
      });
}
