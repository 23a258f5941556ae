// Test of the maintenance worker's stop request when the worker never
// answers: StopMaintenanceThread gives up after 51 sleeps of 100 ms.
#include <gtest/gtest.h>

#include <chrono>

#include "ConnTestSupport.h"
#include "SQLiteDBConn.h"
#include "TestSupport.h"
#include "WaitBounds.h"

using namespace ipc_db_test;

TEST(MaintenanceSlow, StopGivesUpAfterFiftyOneSleeps) {
  CSqliteDBConn conn;
  // A worker that claims to run but never takes its wake item.
  conn.m_bMaintainThreadStarted = 1;
  conn.m_bMaintainThreadRunning = 1;
  LogCapture log;
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(conn.StopMaintenanceThread(), 0);
  long long elapsed = MillisecondsSince(start);
  EXPECT_GE(elapsed, 5050);
  EXPECT_LT(elapsed, 5100 + kElapsedHeadroomMs);
  ExpectLoggedOnce(log, kLevelError, kConnFile, "RECORD: MaintenanceThread stop time out!");
  EXPECT_EQ(log.Entries().size(), 1u) << log.Dump();
  EXPECT_EQ(conn.m_bMaintainThreadStarted, 0);
  EXPECT_EQ(conn.m_bMaintainThreadStop, 1);
  auto items = RepairItems(&conn);
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].enCmdType, DB_REPAIR_CMD_WAKE);
  conn.m_bMaintainThreadRunning = 0;
}
