// The sync engine's pieces whose faults the end-to-end suite would only show
// as rare races: the remote view's handling of stale feed answers and resets,
// and the status table's folder roll-up and notifications.
#include <gtest/gtest.h>

#include "Sync/YCloudNames.h"
#include "Sync/YRemoteView.h"
#include "Sync/YSyncIndex.h"
#include "YPathStatusTable.h"
#include "qel_test_support.h"

namespace {

using Agent::Sync::RemoteItem;
using Agent::Sync::YRemoteView;
using Agent::Sync::YSyncIndex;

CloudSync::MetadataPtr Entry(const char* path, uint64_t id, int64_t deleted = 0, uint64_t seq = 0) {
  auto e = std::make_shared<CloudSync::MetadataInfo>();
  e->path = path;
  e->id = id;
  e->deleted = deleted;
  e->changeSeq = seq;
  e->size = 1;
  return e;
}

std::shared_ptr<RemoteItem> Item(uint64_t id) {
  auto item = std::make_shared<RemoteItem>();
  item->id = id;
  item->size = 1;
  return item;
}

class RemoteViewTest : public ::testing::Test {
 protected:
  void SetUp() override {
    index_ = std::make_unique<YSyncIndex>(dir_.Path("sync.db"));
    index_->Open();
    view_ = std::make_unique<YRemoteView>(*index_);
    view_->Load();
  }
  void TearDown() override {
    view_.reset();
    index_.reset();
  }
  uint64_t IdOf(const char* relative) {
    auto item = view_->Find(relative);
    return item ? item->id : 0;
  }

  qel_test::TempFolder dir_{"agent_sync"};
  std::unique_ptr<YSyncIndex> index_;
  std::unique_ptr<YRemoteView> view_;
};

TEST_F(RemoteViewTest, AnAnswerFromBeforeAnOwnWriteDoesNotUndoIt) {
  ASSERT_TRUE(view_->ApplyFeed({Entry("/a.txt", 5)}, "c1", true, false, view_->BeginPoll()));
  const uint64_t pollStarted = view_->BeginPoll();
  view_->RecordOwnWrite("a.txt", Item(9), 0, 0);  // the engine replaced version 5 by 9
  view_->RecordOwnWrite("b.txt", nullptr, 7, 0);  // and deleted version 7 of b.txt
  // The answer was computed before those writes: it still shows 5, and b live.
  view_->ApplyFeed({Entry("/a.txt", 5), Entry("/b.txt", 7)}, "c2", false, false, pollStarted);
  EXPECT_EQ(IdOf("a.txt"), 9u);
  EXPECT_EQ(IdOf("b.txt"), 0u);
  // A newer version written by someone else is taken, stale or not.
  view_->ApplyFeed({Entry("/a.txt", 12)}, "c3", false, false, pollStarted);
  EXPECT_EQ(IdOf("a.txt"), 12u);
  // Once an answer from after the writes arrived, the cloud's word counts again.
  view_->ApplyFeed({Entry("/a.txt", 12, 100)}, "c4", false, false, view_->BeginPoll());
  EXPECT_EQ(IdOf("a.txt"), 0u);
  view_->ApplyFeed({Entry("/b.txt", 7)}, "c5", false, false, view_->BeginPoll());
  EXPECT_EQ(IdOf("b.txt"), 7u);
}

TEST_F(RemoteViewTest, TheCloudsChangeSequenceTellsAnUndeleteFromAStaleAnswer) {
  ASSERT_TRUE(view_->ApplyFeed({Entry("/u.txt", 7, 0, 3)}, "3", true, false, view_->BeginPoll()));
  const uint64_t pollStarted = view_->BeginPoll();
  view_->RecordOwnWrite("u.txt", nullptr, 7, 4);  // the engine deleted version 7 as change 4
  // A poll in flight since before the delete: its answer still shows 7 live.
  view_->ApplyFeed({Entry("/u.txt", 7, 0, 3)}, "3", false, false, pollStarted);
  EXPECT_EQ(IdOf("u.txt"), 0u);
  // The same version live again, but as change 5: someone undeleted it.
  view_->ApplyFeed({Entry("/u.txt", 7, 0, 5)}, "5", false, false, pollStarted);
  EXPECT_EQ(IdOf("u.txt"), 7u);
}

TEST_F(RemoteViewTest, AResetReplacesTheViewOnlyWhenComplete) {
  view_->ApplyFeed({Entry("/old.txt", 1), Entry("/kept.txt", 2)}, "c1", true, false, view_->BeginPoll());
  view_->RequestReset();
  EXPECT_FALSE(view_->HasCursor());
  view_->ApplyFeed({Entry("/kept.txt", 2)}, "p1", true, true, view_->BeginPoll());
  // Half a tree must not look like deletes.
  EXPECT_EQ(IdOf("old.txt"), 1u);
  view_->ApplyFeed({Entry("/new.txt", 3), Entry("/gone", 0, 5)}, "c2", false, false, view_->BeginPoll());
  EXPECT_EQ(IdOf("old.txt"), 0u);
  EXPECT_EQ(IdOf("kept.txt"), 2u);
  EXPECT_EQ(IdOf("new.txt"), 3u);

  // What was applied survives a restart with its cursor.
  YRemoteView reloaded(*index_);
  reloaded.Load();
  EXPECT_EQ(reloaded.GetCursor(), "c2");
  ASSERT_TRUE(reloaded.Find("new.txt"));
  EXPECT_FALSE(reloaded.Find("old.txt"));
}

TEST(PathStatusTableTest, FoldersAreSyncingWhileAnythingBelowIsAndSubscribersHear) {
  Agent::YPathStatusTable table;
  table.SetRoot("/r");
  std::vector<std::pair<uint64_t, Agent::YPathStatusTable::Changes>> heard;
  table.SetNotify([&](uint64_t who, const Agent::YPathStatusTable::Changes& c) { heard.emplace_back(who, c); });
  table.Subscribe(1, "/r/d");
  table.Subscribe(2, "/r/d/e/f.txt");
  table.Set("/r/d", {Agent::kStatusSynced, 5, 0});
  heard.clear();

  table.Set("/r/d/e/f.txt", {Agent::kStatusSyncing, 2, 0});
  EXPECT_EQ(table.Get("/r/d").cloudStatus, Agent::kStatusSyncing);
  EXPECT_EQ(table.Get("/r").cloudStatus, Agent::kStatusSyncing);
  ASSERT_EQ(heard.size(), 2u);  // the file's subscriber and the folder's

  heard.clear();
  table.Set("/r/d/e/f.txt", {Agent::kStatusSyncing, 3, 0});  // progress only: the folder does not change
  ASSERT_EQ(heard.size(), 1u);
  EXPECT_EQ(heard[0].first, 2u);

  heard.clear();
  table.Set("/r/d/e/f.txt", {Agent::kStatusSynced, 5, 0});
  EXPECT_EQ(table.Get("/r/d").cloudStatus, Agent::kStatusSynced);
  EXPECT_EQ(table.Get("/r").cloudStatus, Agent::kStatusNone);
  EXPECT_EQ(heard.size(), 2u);

  // A path removed while syncing does not leave its folders syncing.
  table.Set("/r/x/y", {Agent::kStatusSyncing, 0, 0});
  table.Remove("/r/x/y");
  EXPECT_EQ(table.Get("/r/x").cloudStatus, Agent::kStatusNone);
  table.Unsubscribe(1);
  heard.clear();
  table.Set("/r/d", {Agent::kStatusError, 0, 0});
  EXPECT_TRUE(heard.empty());
}

TEST(CloudNamesTest, RefusesWhatTheServiceRefuses) {
  using Agent::Sync::CheckCloudName;
  EXPECT_EQ(CheckCloudName("docs/r\xC3\xA9sum\xC3\xA9.txt"), "");
  EXPECT_NE(CheckCloudName("caf\xE9.txt"), "");          // Latin-1
  EXPECT_NE(CheckCloudName("a/\xED\xA0\x80"), "");        // a surrogate
  EXPECT_NE(CheckCloudName("\xC0\xAF"), "");              // an overlong "/"
  EXPECT_NE(CheckCloudName("tab\there"), "");
  EXPECT_NE(CheckCloudName("back\\slash"), "");
  EXPECT_NE(CheckCloudName(std::string(256, 'x')), "");
  EXPECT_EQ(CheckCloudName(std::string(255, 'x')), "");
}

}  // namespace
