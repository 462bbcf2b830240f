// The selective sync tree: rows from what the sync knows, three-state checks, and
// the rules the checks are saved as.

#include <gtest/gtest.h>

#include "CVSelectiveSync.h"
#include "CVSelectiveSyncSite.h"
#include "CVStaticHelpers.h"
#include "SelectiveSyncTree.h"
#include "SyncControl.h"
#include "TempHome.h"

namespace {

class SelectiveSyncTreeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = CVStaticHelpers::GeneratePathToSite("Docs");
    site_ = CVSelectiveSync::Instance().GetSiteRulesByName("Docs", true);
    site_->addSyncRule(CVSelectiveSyncRule::syncAll, root_);
    for (const auto& [path, folder] : std::vector<std::pair<std::string, bool>>{
             {"/A", true}, {"/A/x.txt", false}, {"/A/y.txt", false}, {"/B", true}, {"/C/D/deep.txt", false},
             {"/c.txt", false}}) {
      site_->addSyncItem(folder, root_ + path);
    }
    tree_.loadChanges();
  }
  std::string Rules() {
    std::string text;
    for (const auto& rule : site_->SyncRules()) text += rule.ItemUrl + "=" + std::to_string(rule.Rule) + " ";
    return text;
  }

  TempHome home_;
  std::string root_;
  CVSelectiveSync::SitePtr site_;
  SelectiveSyncTree tree_{"Docs"};
};

TEST_F(SelectiveSyncTreeTest, RowsComeFromTheKnownItems) {
  auto& root = tree_.root();
  EXPECT_EQ(root.itemSynced, SelectiveSyncTree::kChecked);
  ASSERT_EQ(root.children.size(), 4u);  // folders first: A, B, C, then c.txt
  EXPECT_EQ(root.children[0]->itemName, "A");
  EXPECT_EQ(root.children[3]->itemName, "c.txt");
  // A folder of which nothing is known waits for the server behind a placeholder.
  ASSERT_TRUE(tree_.Find("B"));
  EXPECT_TRUE(tree_.Find("B")->NeedsLoading());
  EXPECT_EQ(tree_.Find("B")->children[0]->itemName, "Loading...");
  EXPECT_FALSE(tree_.Find("A")->NeedsLoading());
  // A folder that only a deeper item names is made on the way.
  ASSERT_TRUE(tree_.Find("C/D"));
  EXPECT_TRUE(tree_.Find("C/D/deep.txt"));
  EXPECT_FALSE(tree_.Find("Z"));
}

TEST_F(SelectiveSyncTreeTest, ChecksSpreadDownAndUp) {
  auto* a = tree_.Find("A");
  auto* x = tree_.Find("A/x.txt");
  auto* y = tree_.Find("A/y.txt");
  tree_.SetChecked(*x, false);
  EXPECT_EQ(a->itemSynced, SelectiveSyncTree::kMixed);
  EXPECT_EQ(tree_.root().itemSynced, SelectiveSyncTree::kMixed);
  tree_.SetChecked(*y, false);
  EXPECT_EQ(a->itemSynced, SelectiveSyncTree::kUnchecked);
  tree_.syncedCheckboxPressed(*a);  // unchecked to checked, the children with it
  EXPECT_EQ(x->itemSynced, SelectiveSyncTree::kChecked);
  EXPECT_EQ(tree_.root().itemSynced, SelectiveSyncTree::kChecked);

  auto* b = tree_.Find("B");
  tree_.SetChecked(*b, false);
  EXPECT_TRUE(b->children[0]->placeholder);  // left alone
  EXPECT_EQ(b->children[0]->itemSynced, SelectiveSyncTree::kUnchecked);
  tree_.syncedCheckboxPressed(tree_.root());  // mixed becomes checked
  EXPECT_EQ(b->itemSynced, SelectiveSyncTree::kChecked);
}

TEST_F(SelectiveSyncTreeTest, SavedRulesOnlyWhereTheyDiffer) {
  tree_.SetChecked(*tree_.Find("A/x.txt"), false);
  tree_.SetChecked(*tree_.Find("B"), false);
  auto control = SyncControl::FilesOnly();
  tree_.saveChanges(*control);
  // The mixed storage and A count as synced: the storage keeps its rule, A inherits it.
  EXPECT_EQ(Rules(), "Docs=1 Docs/A/x.txt=2 Docs/B=2 ");

  SelectiveSyncTree again("Docs");
  again.loadChanges();
  EXPECT_EQ(again.Find("A")->itemSynced, SelectiveSyncTree::kMixed);
  EXPECT_EQ(again.Find("B")->itemSynced, SelectiveSyncTree::kUnchecked);
  again.SetChecked(again.root(), false);  // an existing rule changes its value
  again.saveChanges(*control);
  EXPECT_EQ(Rules(), "Docs=2 Docs/A/x.txt=2 Docs/B=2 ");
}

}  // namespace
