// A round trip through every kind of record operation on an encrypted
// database file with a record such as a camera application stores: several
// events inserted in one call, read back field by field, changed through the
// text and the blob paths of update, counted, their extremes taken, removed
// by filter, with the stored rows checked directly after each step, and the
// file checked to hold none of the values in plain text.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "DbFilter.h"
#include "Meta.h"
#include "Table.h"
#include "TableTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::DbTest;
using ipc_db_test::HexOf;
using ipc_db_test::IntSlot;
using ipc_db_test::MakeKey;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::Rows;

namespace {

struct Event {
  int32_t id;                  // iId_pa: auto-increment key
  int32_t time;                // iTime: seconds
  char camera[32];             // cCamera: CHAR(32)
  unsigned char snapshot[64];  // bSnapshot: BLOB
  int64_t size;                // iSize: 8-byte integer
};

Event MakeEvent(int32_t time, const char* camera, unsigned char seed, int64_t size) {
  Event event;
  std::memset(&event, 0, sizeof(event));
  event.time = time;
  std::strncpy(event.camera, camera, sizeof(event.camera) - 1);
  for (size_t i = 0; i < sizeof(event.snapshot); ++i) {
    event.snapshot[i] = static_cast<unsigned char>(seed * 3 + i);
  }
  event.size = size;
  return event;
}

class RoundTripTest : public DbTest {
 protected:
  void SetUp() override {
    OpenDb(MakeKey('k'));
    meta_.Init("t_event", sizeof(Event));
    meta_.AddMember(new Member("iId_pa", offsetof(Event, id), &types_.int4));
    meta_.AddMember(new Member("iTime_n", offsetof(Event, time), &types_.int4));
    meta_.AddMember(new Member("cCamera", offsetof(Event, camera), &types_.char32));
    meta_.AddMember(new Member("bSnapshot", offsetof(Event, snapshot), &types_.blob64));
    meta_.AddMember(new Member("iSize_d", offsetof(Event, size), &types_.int8));
    table_ = Create(&meta_, 1);
  }

  Rows Stored() {
    return Query("select Id, Time, Camera, hex(Snapshot), Size from t_event order by Id");
  }

  static std::vector<std::string> Row(const Event& event, int id) {
    return {std::to_string(id), std::to_string(event.time), event.camera,
            HexOf(event.snapshot, sizeof(event.snapshot)), std::to_string(event.size)};
  }

  static void ExpectSameEvent(const Event& read, const Event& written, int id) {
    EXPECT_EQ(read.id, id);
    EXPECT_EQ(read.time, written.time);
    EXPECT_STREQ(read.camera, written.camera);
    EXPECT_EQ(std::memcmp(read.snapshot, written.snapshot, sizeof(read.snapshot)), 0);
    EXPECT_EQ(read.size, written.size);
  }

  Member* M(const char* name) { return meta_.Get(name); }

  Meta meta_;
  Table* table_ = nullptr;
  DbFilters none_;
};

TEST_F(RoundTripTest, EventsThroughEveryOperation) {
  std::string created;
  std::string name = "t_event";
  ASSERT_EQ(db_.getTableSql(name, created), 0);
  EXPECT_EQ(created,
            "CREATE TABLE t_event(Id INTEGER PRIMARY KEY autoincrement,Time INTEGER NOT "
            "NULL,Camera CHAR(32),Snapshot BLOB,Size INTEGER DEFAULT 0)");

  // Insert four events in one call; the keys are left to the database.
  Event events[4] = {MakeEvent(1700000000, "front-door", 1, 1048576),
                     MakeEvent(1700000060, "garage", 2, -123456789),
                     MakeEvent(1700000120, "backyard", 3, 2147483647),
                     MakeEvent(1700000180, "front-door", 4, 0)};
  ASSERT_EQ(table_->add_item(events, 4, none_), 0);
  EXPECT_EQ(Stored(), (Rows{Row(events[0], 1), Row(events[1], 2), Row(events[2], 3),
                            Row(events[3], 4)}));

  // Read them back field for field.
  Event read[5];
  std::memset(read, 0, sizeof(read));
  unsigned long long count = 0;
  DbFilters byId(1, new DbFilter(M("iId_pa"), DB_FILTER_OP_ORDER_BY, nullptr, nullptr));
  ASSERT_EQ(table_->get_item(none_, byId, count, read), 0);
  ASSERT_EQ(count, 4u);
  for (int i = 0; i < 4; ++i) {
    SCOPED_TRACE(i);
    ExpectSameEvent(read[i], events[i], i + 1);
  }

  // Rename one camera (text path).
  char renamed[32] = "side-gate";
  DbFilters setCamera(1, new DbFilter(M("cCamera"), DB_FILTER_OP_EQ, renamed, nullptr));
  DbFilters whereTwo(1, new DbFilter(M("iId_pa"), DB_FILTER_OP_EQ, IntSlot(2), nullptr));
  ASSERT_EQ(table_->update_item(setCamera, whereTwo), 0);
  std::strcpy(events[1].camera, "side-gate");
  EXPECT_EQ(Stored(), (Rows{Row(events[0], 1), Row(events[1], 2), Row(events[2], 3),
                            Row(events[3], 4)}));

  // Replace one snapshot (blob path), selected by its old snapshot.
  Event replacement = MakeEvent(0, "", 50, 0);
  DbFilters setSnapshot(
      1, new DbFilter(M("bSnapshot"), DB_FILTER_OP_EQ, replacement.snapshot, nullptr));
  DbFilters whereSnapshot(
      1, new DbFilter(M("bSnapshot"), DB_FILTER_OP_EQ, events[2].snapshot, nullptr));
  ASSERT_EQ(table_->update_item(setSnapshot, whereSnapshot), 0);
  std::memcpy(events[2].snapshot, replacement.snapshot, sizeof(replacement.snapshot));
  EXPECT_EQ(Stored(), (Rows{Row(events[0], 1), Row(events[1], 2), Row(events[2], 3),
                            Row(events[3], 4)}));

  // Read the changed event back.
  DbFilters whereThree(1,
                       new DbFilter(M("iId_pa"), DB_FILTER_OP_EQ, IntSlot(3), nullptr));
  Event three;
  count = 0;
  ASSERT_EQ(table_->get_item(none_, whereThree, count, &three), 0);
  ASSERT_EQ(count, 1u);
  ExpectSameEvent(three, events[2], 3);

  // Count, maximum and minimum.
  EXPECT_EQ(table_->get_item_cnt(none_), 4);
  char frontDoor[32] = "front-door";
  DbFilters atFront(1, new DbFilter(M("cCamera"), DB_FILTER_OP_EQ, frontDoor, nullptr));
  EXPECT_EQ(table_->get_item_cnt(atFront), 2);
  DbFilters timeCol(1, new DbFilter(M("iTime_n"), DB_FILTER_OP_EQ, nullptr, nullptr));
  DbFilters sizeCol(1, new DbFilter(M("iSize_d"), DB_FILTER_OP_EQ, nullptr, nullptr));
  DbFilters cameraCol(1, new DbFilter(M("cCamera"), DB_FILTER_OP_EQ, nullptr, nullptr));
  std::string out;
  EXPECT_EQ(table_->get_item_max(timeCol, none_, out), 1700000180);
  EXPECT_EQ(out, "1700000180");
  EXPECT_EQ(table_->get_item_min(timeCol, atFront, out), 1700000000);
  EXPECT_EQ(table_->get_item_max(sizeCol, none_, out), 2147483647);
  EXPECT_EQ(table_->get_item_min(sizeCol, none_, out), -123456789);
  EXPECT_EQ(table_->get_item_max(cameraCol, none_, out), 0);
  EXPECT_EQ(out, "side-gate");
  EXPECT_EQ(table_->get_item_min(cameraCol, none_, out), 0);
  EXPECT_EQ(out, "backyard");

  // Remove two events by filter, in one call.
  DbFilters removals[2];
  int32_t firstAndThird[2] = {1, 3};
  removals[0].add_filter(
      new DbFilter(M("iId_pa"), DB_FILTER_OP_IN, firstAndThird, IntSlot(2)));
  removals[1].add_filter(
      new DbFilter(M("iTime_n"), DB_FILTER_OP_GT, IntSlot(1700000170), nullptr));
  ASSERT_EQ(table_->rmv_item(removals, 2), 0);
  EXPECT_EQ(Stored(), (Rows{Row(events[1], 2)}));
  EXPECT_EQ(table_->get_item_cnt(none_), 1);

  // The file is encrypted: no header and none of the texts in the clear.
  ASSERT_EQ(db_.CloseDB(), 0);
  std::string bytes = ReadFileBytes(DbFile());
  ASSERT_FALSE(bytes.empty());
  EXPECT_EQ(bytes.find("SQLite format 3"), std::string::npos);
  EXPECT_EQ(bytes.find("side-gate"), std::string::npos);
  EXPECT_EQ(bytes.find("t_event"), std::string::npos);

  // Reopened with its key, the remaining event reads back the same.
  ASSERT_EQ(db_.OpenDB(), 0);
  count = 0;
  ASSERT_EQ(table_->get_item(none_, none_, count, read), 0);
  ASSERT_EQ(count, 1u);
  ExpectSameEvent(read[0], events[1], 2);
}

}  // namespace
