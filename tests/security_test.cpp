// Security properties and their limits: permissions of the database file,
// its journal and the install directory; no key material in any log entry
// of a keyed lifecycle with every debug entry on; the key buffer cleared
// when the connection goes away; and what unchecked text does to a
// statement, with the text check an application runs before storing
// (the same function as in section 10 of docs/guide.md).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "DBCommon.h"
#include "LogKeyGuard.h"
#include "ReliabilityTestSupport.h"
#include "TestEnv.h"
#include "TestSupport.h"
#include "zb_log.h"

using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::FileExists;
using ipc_db_test::FileMode;
using ipc_db_test::LogCapture;
using ipc_db_test::LogEntry;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeEvent;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::TestEnv;
using ipc_db_test::JsonObject;
using ipc_db_test::WriteResultJson;
using ipc_db_test::SecretsKnown;
using ipc_db_test::TempDir;
using ipc_db_test::ValueSlot;

namespace {

// Sets the process umask for the life of the object.
class ScopedUmask {
 public:
  explicit ScopedUmask(mode_t mask) : old_(umask(mask)) {}
  ~ScopedUmask() { umask(old_); }

 private:
  mode_t old_;
};

// ---- Permissions -----------------------------------------------------------

TEST(FilePermissions, NewDatabaseFileIs0640WhateverTheUmask) {
  for (mode_t mask : {mode_t{0}, mode_t{022}, mode_t{077}}) {
    ScopedUmask scoped(mask);
    TempDir dir;
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir.Path(), "p.db", ""), 0);
    EXPECT_EQ(FileMode(dir.Path() + "p.db"), 0640) << "umask " << mask;
    EXPECT_EQ(db.UnInit(), 0);
  }
}

TEST(FilePermissions, ExistingWorldReadableFilesAreNarrowedTo0640) {
  TempDir dir;
  const std::string path = dir.Path() + "p.db";
  {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir.Path(), "p.db", MakeKey('p')), 0);
    EXPECT_EQ(db.UnInit(), 0);
  }
  // A leftover journal file (empty, so not a hot journal) and the database
  // made readable by everybody.
  FILE* journal = std::fopen((path + "-journal").c_str(), "w");
  ASSERT_NE(journal, nullptr);
  std::fclose(journal);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  ASSERT_EQ(chmod((path + "-journal").c_str(), 0666), 0);
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "p.db", MakeKey('p')), 0);
  EXPECT_EQ(FileMode(path), 0640);
  EXPECT_EQ(FileMode(path + "-journal"), 0640);
  EXPECT_EQ(db.UnInit(), 0);
}

TEST(FilePermissions, JournalMadeDuringATransactionIs0640) {
  ScopedUmask scoped(0);
  TempDir dir;
  EventSchema schema;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "p.db", ""), 0);
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(db.m_pDBConn->BeginTransaction(), 0);
  Event event = MakeEvent(1, 0, 1);
  ASSERT_EQ(table->add_item(&event, 1, DbFilters(0)), 0);
  // SQLite gives the journal the database file's permissions.
  EXPECT_EQ(FileMode(dir.Path() + "p.db-journal"), 0640);
  ASSERT_EQ(db.m_pDBConn->CommitTransaction(), 0);
  EXPECT_FALSE(FileExists(dir.Path() + "p.db-journal"));
  EXPECT_EQ(db.UnInit(), 0);
}

TEST(DirectoryPermissions, MissingDirectoryIsMadeWith0777) {
  ScopedUmask scoped(0);
  TempDir parent;
  const std::string dir = parent.Path() + "made/";
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir, "p.db", ""), 0);
  EXPECT_EQ(FileMode(dir), 0777);
  EXPECT_EQ(FileMode(dir + "p.db"), 0640);
  EXPECT_EQ(db.UnInit(), 0);
  char directoryMode[8];
  char fileMode[8];
  std::snprintf(directoryMode, sizeof(directoryMode), "%04o", FileMode(dir));
  std::snprintf(fileMode, sizeof(fileMode), "%04o", FileMode(dir + "p.db"));
  WriteResultJson("security", "directory_made_by_library",
                  JsonObject()
                      .Add("directory_made_by_library", directoryMode)
                      .Add("umask", "000")
                      .Add("database_file", fileMode)
                      .Text());
}

TEST(DirectoryPermissions, MadeDirectoryFollowsTheUmask) {
  ScopedUmask scoped(027);
  TempDir parent;
  const std::string dir = parent.Path() + "made/";
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir, "p.db", ""), 0);
  EXPECT_EQ(FileMode(dir), 0750);  // 0777 as asked, less the umask
  EXPECT_EQ(db.UnInit(), 0);
}

TEST(DirectoryPermissions, ExistingDirectoryKeepsItsMode) {
  ScopedUmask scoped(0);
  TempDir parent;
  const std::string dir = parent.Path() + "own/";
  ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir, "p.db", ""), 0);
  EXPECT_EQ(FileMode(dir), 0700);
  EXPECT_EQ(db.UnInit(), 0);
}

TEST(DirectoryPermissions, MissingParentIsNotCreated) {
  TempDir parent;
  const std::string dir = parent.Path() + "a/b/";
  LogCapture log;
  Db db;
  EXPECT_EQ(OpenEventDb(db, dir, "p.db", ""), DB_ERR_OPEN);
  EXPECT_EQ(log.Count("RECORD: CheckInstallPath failed"), 1u);
  EXPECT_FALSE(FileExists(parent.Path() + "a"));
  EXPECT_EQ(db.UnInit(), 0);
}

// The repair tool writes the new file with its own default permissions;
// the file keeps them until the next open narrows them to 0640.
TEST(FilePermissions, RepairedFileIs0640OnlyAfterTheNextOpen) {
  TestEnv env;  // RepairDB reaches the repair tool's stand-in
  ScopedUmask scoped(022);
  TempDir dir;
  EventSchema schema;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "p.db", ""), 0);
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);
  ASSERT_EQ(db.CloseDB(), 0);
  ASSERT_EQ(db.m_pDBConn->RepairDB(), 0);
  int afterRepair = FileMode(dir.Path() + "p.db");
  EXPECT_EQ(afterRepair, 0644);
  ASSERT_EQ(db.OpenDB(), 0);
  EXPECT_EQ(FileMode(dir.Path() + "p.db"), 0640);
  EXPECT_EQ(db.UnInit(), 0);
  WriteResultJson("security", "repaired_file_mode",
                  JsonObject()
                      .Add("repaired_file_mode_before_reopen", "0644")
                      .Add("umask", "022")
                      .Add("after_reopen", "0640")
                      .Text());
}

// ---- Keys ------------------------------------------------------------------

// True when some entry holds 8 consecutive bytes of `key`, raw or as hex.
bool LogHoldsKeyBytes(const std::vector<LogEntry>& entries, const std::string& key) {
  static const char kDigits[] = "0123456789abcdef";
  for (size_t start = 0; start + 8 <= key.size(); ++start) {
    std::string run = key.substr(start, 8);
    std::string hex;
    for (unsigned char byte : run) {
      hex += kDigits[byte >> 4];
      hex += kDigits[byte & 0xF];
    }
    for (const LogEntry& entry : entries) {
      std::string lower = entry.text;
      for (char& c : lower)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      if (entry.text.find(run) != std::string::npos ||
          lower.find(hex) != std::string::npos) {
        return true;
      }
    }
  }
  return false;
}

// A 64-byte key: `text` repeated as far as needed.
std::string KeyFrom(const std::string& text) {
  std::string key;
  while (key.size() < 64) key += text;
  return key.substr(0, 64);
}

// A whole keyed life with every debug entry switched on: open, create,
// write, read, count, re-key, a failing statement, close, reopen with the
// new key, and a wrong key. No entry holds key bytes.
TEST(KeyMaterial, NoKeyBytesInAnyEntryOfAKeyedLifecycle) {
  const int oldRecordFlag = g_enRecordDebugFlag;
  g_enRecordDebugFlag = 1;
  Log_SetLogDebugEnable(1);
  const std::string first =
      KeyFrom("first-key:Q9w!e7R#t5Y%u3I^o1P&a8S*d6F(g4H)j2K_l0Z+x9C");
  const std::string second =
      KeyFrom("second-key:M1n2B3v4C5x6Z7l8K9j0H-g=F[d]S;a'P,o.I/u`Y~t");
  ASSERT_EQ(first.size(), 64u);
  ASSERT_EQ(second.size(), 64u);
  size_t secretsBefore = SecretsKnown();
  TempDir dir;
  EventSchema schema;
  LogCapture log;
  {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir.Path(), "k.db", first), 0);
    std::unique_ptr<Table> table(
        db.createTable(schema.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, 5, 3);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    DbFilters none(0);
    EXPECT_EQ(table->get_item_cnt(none), 5);
    EXPECT_EQ(db.m_pDBConn->ExecuteSQL("select nonsense;", nullptr, DB_EXEC_SQL_SYNC),
              DB_ERR_EXEC);
    ASSERT_EQ(db.reEncryptDB(second.c_str(), 64), 0);
    ASSERT_EQ(db.CloseDB(), 0);
    ASSERT_EQ(db.OpenDB(), 0);
    EXPECT_EQ(table->get_item_cnt(none), 5);
    EXPECT_EQ(db.UnInit(), 0);
  }
  {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir.Path(), "k.db", first), 0);  // now the wrong key
    Table table(&db, schema.meta(), EventSchema::kAnalyzeName);
    DbFilters none(0);
    EXPECT_EQ(table.get_item_cnt(none), -1);
    EXPECT_EQ(db.UnInit(), 0);
  }
  Log_SetLogDebugEnable(0);
  g_enRecordDebugFlag = oldRecordFlag;

  std::vector<LogEntry> entries = log.Entries();
  EXPECT_GT(entries.size(), 40u);  // debug entries included
  EXPECT_FALSE(LogHoldsKeyBytes(entries, first));
  EXPECT_FALSE(LogHoldsKeyBytes(entries, second));
  // And the suite-wide guard saw both keys reach SQLCipher.
  EXPECT_EQ(SecretsKnown(), secretsBefore + 2);
  WriteResultJson("security", "keyed_lifecycle",
                  JsonObject()
                      .Add("keyed_lifecycle_entries",
                           static_cast<unsigned long long>(entries.size()))
                      .Add("entries_with_key_bytes", 0)
                      .Text());
}

// The check itself can fail: a library that logged its key would be caught.
TEST(KeyMaterial, TheCheckFindsAKeyInAnEntry) {
  std::vector<LogEntry> entries = {LogEntry{4, 1, 0, "f", 1, "opened with 12345678abc"}};
  EXPECT_TRUE(LogHoldsKeyBytes(entries, "xx12345678yy"));
  entries[0].text = "hex 3132333435363738";
  EXPECT_TRUE(LogHoldsKeyBytes(entries, "xx12345678yy"));
  EXPECT_FALSE(LogHoldsKeyBytes(entries, "xx1234567"));
}

// The key stays in the connection while it lives (also after CloseDB: the
// next OpenDB needs it) and is overwritten with zeros when it goes away.
TEST(KeyMaterial, KeyBufferIsZeroedWhenTheConnectionIsDestroyed) {
  alignas(CSqliteDBConn) unsigned char storage[sizeof(CSqliteDBConn)];
  auto* conn = new (storage) CSqliteDBConn();
  std::string key = MakeKey('z');
  ASSERT_EQ(conn->SetEncryptKey(&key[0], 64), 0);
  const size_t offset = static_cast<size_t>(
      reinterpret_cast<unsigned char*>(conn->m_szEncryptKey) - storage);
  ASSERT_EQ(std::memcmp(storage + offset, key.data(), 64), 0);
  conn->~CSqliteDBConn();
  EXPECT_EQ(std::memcmp(storage + offset, std::string(65, '\0').data(), 65), 0);
}

TEST(KeyMaterial, KeyStaysInMemoryAfterCloseDB) {
  TempDir dir;
  Db db;
  std::string key = MakeKey('m');
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "m.db", key), 0);
  ASSERT_EQ(db.CloseDB(), 0);
  EXPECT_EQ(std::string(db.m_pDBConn->m_szEncryptKey, 64), key);
  EXPECT_EQ(db.UnInit(), 0);
}

// ---- Untrusted text --------------------------------------------------------

// The check of docs/guide.md, section 10: a text may be stored in a CHAR(n) field
// when it ends inside the field (the library reads up to one byte past the
// field when there is no terminator), holds no single quote (texts are put
// into statements between single quotes without escaping) and no control
// character.
bool IsStorableText(const char* text, size_t fieldSize) {
  size_t length = strnlen(text, fieldSize);
  if (length == fieldSize) return false;  // no terminator inside the field
  for (size_t i = 0; i < length; ++i) {
    unsigned char c = static_cast<unsigned char>(text[i]);
    if (c == '\'' || c < 0x20 || c == 0x7F) return false;
  }
  return true;
}

TEST(UntrustedText, TheCheckRefusesWhatChangesAStatement) {
  EXPECT_TRUE(IsStorableText("front door", 24));
  EXPECT_FALSE(IsStorableText("O'Brien", 24));
  EXPECT_FALSE(IsStorableText("x' or '1'='1", 24));
  EXPECT_FALSE(IsStorableText("line\nbreak", 24));
  char full[8];
  std::memcpy(full, "12345678", 8);  // fills the field, no terminator
  EXPECT_FALSE(IsStorableText(full, sizeof(full)));
  EXPECT_TRUE(IsStorableText("1234567", 8));
}

// Without the check, a text in a filter term rewrites the statement: a
// remove meant for one text deletes every row, and a second statement in
// the text runs too (removes go through sqlite3_exec).
TEST(UntrustedText, UncheckedFilterTextRewritesTheStatement) {
  TempDir dir;
  EventSchema schema;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "u.db", ""), 0);
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);
  std::vector<Event> events = MakeBatch(1, 5, 3);
  ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
  DbFilters none(0);

  char alwaysTrue[24] = "x' or '1'='1";
  EXPECT_FALSE(IsStorableText(alwaysTrue, sizeof(alwaysTrue)));
  DbFilters removeOne(
      1, new DbFilter(schema.member(4), DB_FILTER_OP_EQ, alwaysTrue, nullptr));
  EXPECT_EQ(table->rmv_item(&removeOne, 1), 0);
  EXPECT_EQ(table->get_item_cnt(none), 0);  // every row is gone

  char secondStatement[24] = "x'; drop table t_event;";
  EXPECT_FALSE(IsStorableText(secondStatement, sizeof(secondStatement)));
  DbFilters removeTwo(
      1, new DbFilter(schema.member(4), DB_FILTER_OP_EQ, secondStatement, nullptr));
  EXPECT_EQ(table->rmv_item(&removeTwo, 1), -1);  // the quote left over fails...
  EXPECT_EQ(db.m_pDBConn->WhetherTableExist("t_event"), 0);  // ...after the drop ran
  EXPECT_EQ(db.UnInit(), 0);
}

// A single quote in an inserted text breaks the statement: the record is
// refused, and nothing else is written.
TEST(UntrustedText, QuoteInAnInsertedTextIsRefused) {
  TempDir dir;
  EventSchema schema;
  Db db;
  ASSERT_EQ(OpenEventDb(db, dir.Path(), "u.db", ""), 0);
  std::unique_ptr<Table> table(db.createTable(schema.meta(), EventSchema::kAnalyzeName));
  ASSERT_NE(table, nullptr);
  Event event = MakeEvent(1, 0, 0);
  std::strcpy(event.text, "O'Brien");
  EXPECT_EQ(table->add_item(&event, 1, DbFilters(0)), -1);
  DbFilters none(0);
  EXPECT_EQ(table->get_item_cnt(none), 0);
  EXPECT_EQ(db.UnInit(), 0);
  (void)ValueSlot;
}

}  // namespace
