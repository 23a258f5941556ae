// Tests of the log key guard that every test executable links: that the
// library's entries really pass through it, and that it catches a key in an
// entry raw, as hexadecimal, and when the key becomes known only after the
// entry was written. Without these, a silent guard would look like a clean
// suite.
#include "LogKeyGuard.h"

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <string>

#include "SQLiteDBConn.h"
#include "TestSupport.h"
#include "zb_log.h"

using ipc_db_test::LogCapture;
using ipc_db_test::LogEntriesChecked;
using ipc_db_test::RegisterSecret;
using ipc_db_test::SecretsKnown;
using ipc_db_test::TempDir;

namespace {

const char kLeak[] = "bytes of a database key";

std::string HexOf(const std::string& bytes, const char* digits) {
  std::string hex;
  for (unsigned char byte : bytes) {
    hex += digits[byte >> 4];
    hex += digits[byte & 0xF];
  }
  return hex;
}

TEST(LogKeyGuard, SeesTheLibrarysEntriesWhateverTheSink) {
  CSqliteDBConn conn;
  size_t before = LogEntriesChecked();
  EXPECT_EQ(conn.CloseConnection(), DB_ERR_CONN_NOT_EXIST);  // one error entry
  EXPECT_EQ(LogEntriesChecked(), before + 1);
  LogCapture log;  // and with a capture installed, the capture still gets it
  EXPECT_EQ(conn.CloseConnection(), DB_ERR_CONN_NOT_EXIST);
  EXPECT_EQ(LogEntriesChecked(), before + 2);
  EXPECT_EQ(log.Count("RECORD: DB Connection has not exist"), 1u);
}

TEST(LogKeyGuard, DebugEntriesDroppedByTheDefaultSinkAreCheckedToo) {
  size_t before = LogEntriesChecked();
  ZB_WriteLog(4, 0, 0, 0, "f", 1, "debug %d", 1);
  EXPECT_EQ(LogEntriesChecked(), before + 1);
}

TEST(LogKeyGuard, FlagsARawRunOfEightKeyBytes) {
  const std::string key =
      "Zq7!mP2#vL9@xR4$Zq7!mP2#vL9@xR4$Zq7!mP2#vL9@xR4$Zq7!mP2#vL9@xR4$";
  RegisterSecret(key);
  ZB_WriteLog(4, 1, 0, 0, "f", 1, "seven bytes are fine: %s", key.substr(3, 7).c_str());
  EXPECT_NONFATAL_FAILURE(
      ZB_WriteLog(4, 1, 0, 0, "f", 2, "eight are not: %s", key.substr(3, 8).c_str()),
      kLeak);
}

TEST(LogKeyGuard, FlagsHexadecimalKeyBytesInEitherCase) {
  const std::string key =
      "hexkey-0123456789-hexkey-0123456789-hexkey-0123456789-hexkey-01";
  RegisterSecret(key);
  EXPECT_NONFATAL_FAILURE(
      ZB_WriteLog(4, 3, 0, 0, "f", 1, "key=%s",
                  HexOf(key.substr(10, 8), "0123456789abcdef").c_str()),
      kLeak);
  EXPECT_NONFATAL_FAILURE(
      ZB_WriteLog(4, 3, 0, 0, "f", 1, "key=%s",
                  HexOf(key.substr(20, 8), "0123456789ABCDEF").c_str()),
      kLeak);
}

TEST(LogKeyGuard, FlagsAnEntryWrittenBeforeItsKeyWasKnown) {
  const std::string key =
      "late-key-late-key-late-key-late-key-late-key-late-key-late-key!";
  ZB_WriteLog(4, 0, 0, 0, "f", 1, "about to use %s", key.c_str());
  EXPECT_NONFATAL_FAILURE(RegisterSecret(key), kLeak);
}

TEST(LogKeyGuard, LearnsEveryKeyHandedToSqlcipher) {
  TempDir dir;
  std::string key = "sqlcipher-key-0001-sqlcipher-key-0001-sqlcipher-key-0001-sqlciph";
  size_t before = SecretsKnown();
  CSqliteDBConn conn;
  conn.m_strInstallPath = dir.Path();
  conn.SetDBFile("k.db");
  conn.SetDBJournal("k.db-journal");
  ASSERT_EQ(conn.SetEncryptKey(&key[0], 64), 0);
  ASSERT_EQ(conn.OpenConnection(), 0);
  EXPECT_EQ(SecretsKnown(), before + 1);
  EXPECT_NONFATAL_FAILURE(
      ZB_WriteLog(4, 1, 0, 0, "f", 1, "%s", key.substr(30, 8).c_str()), kLeak);
  std::string next = "sqlcipher-key-0002-sqlcipher-key-0002-sqlcipher-key-0002-sqlciph";
  ASSERT_EQ(conn.ReEncryptDB(next.c_str(), 64), 0);
  EXPECT_EQ(SecretsKnown(), before + 2);
}

TEST(LogKeyGuard, IgnoresKeysTooShortToTellFromText) {
  size_t before = SecretsKnown();
  RegisterSecret("abc");
  EXPECT_EQ(SecretsKnown(), before);
  ZB_WriteLog(4, 1, 0, 0, "f", 1, "abc abc abc");
}

}  // namespace
