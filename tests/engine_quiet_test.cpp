// The engine writes nothing of its own to stderr, so that a device's stderr
// holds only the library's log lines. SQLCipher 4 logs warnings to stderr by
// default (an HMAC check that fails on a wrong key, for one); the pinned
// build is made without that default. The test sends stderr to a file while
// the library reads a keyed file with a wrong key, then checks that every
// line there is one of the library's own entries. To show the check can
// fail, it then asks SQLCipher 4 to log to stderr and sees the engine's
// line arrive.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "EngineFormat.h"
#include "ReliabilityTestSupport.h"
#include "TestSupport.h"

using ipc_db_test::EngineIsSqlcipher4;
using ipc_db_test::Event;
using ipc_db_test::EventSchema;
using ipc_db_test::MakeBatch;
using ipc_db_test::MakeKey;
using ipc_db_test::OpenEventDb;
using ipc_db_test::TempDir;

namespace {

// Sends the process's stderr into a file until Stop(); Stop() gives the
// lines written meanwhile.
class StderrToFile {
 public:
  explicit StderrToFile(const std::string& path) : path_(path) {
    std::fflush(stderr);
    saved_ = dup(2);
    FILE* file = std::fopen(path.c_str(), "w");
    dup2(fileno(file), 2);
    std::fclose(file);
  }
  ~StderrToFile() { Stop(); }

  std::vector<std::string> Stop() {
    if (saved_ >= 0) {
      std::fflush(stderr);
      dup2(saved_, 2);
      close(saved_);
      saved_ = -1;
    }
    std::vector<std::string> lines;
    std::ifstream in(path_);
    for (std::string line; std::getline(in, line);) {
      if (!line.empty()) lines.push_back(line);
    }
    return lines;
  }

 private:
  std::string path_;
  int saved_ = -1;
};

// An entry of the library's default log sink: "[<module>][<LEVEL>] ...".
bool IsLibraryLine(const std::string& line) {
  static const std::regex kEntry("^\\[[0-9]+\\]\\[[A-Z]+\\] ");
  return std::regex_search(line, kEntry);
}

class EngineQuietTest : public testing::Test {
 protected:
  void SetUp() override {
    Db db;
    ASSERT_EQ(OpenEventDb(db, dir_.Path(), "q.db", MakeKey('q')), 0);
    std::unique_ptr<Table> table(db.createTable(schema_.meta(), EventSchema::kAnalyzeName));
    ASSERT_NE(table, nullptr);
    std::vector<Event> events = MakeBatch(1, 10, 1);
    ASSERT_EQ(table->add_item(events.data(), events.size(), DbFilters(0)), 0);
    ASSERT_EQ(db.UnInit(), 0);
  }

  // Opens q.db with a wrong key and counts its rows through the library.
  long long CountWithWrongKey() {
    Db db;
    EXPECT_EQ(OpenEventDb(db, dir_.Path(), "q.db", MakeKey('w')), 0);
    Table table(&db, schema_.meta(), EventSchema::kAnalyzeName);
    DbFilters all(0);
    long long count = table.get_item_cnt(all);
    db.UnInit();
    return count;
  }

  TempDir dir_;
  EventSchema schema_;
};

TEST_F(EngineQuietTest, StderrHoldsOnlyTheLibrarysLines) {
  StderrToFile capture(dir_.Path() + "stderr.txt");
  EXPECT_EQ(CountWithWrongKey(), -1);
  std::vector<std::string> lines = capture.Stop();
  EXPECT_FALSE(lines.empty());  // the library logs the failed statements
  for (const std::string& line : lines) {
    EXPECT_TRUE(IsLibraryLine(line)) << "not a library entry: " << line;
  }
}

TEST_F(EngineQuietTest, TheCheckSeesTheEnginesLinesWhenItIsToldToLog) {
  if (!EngineIsSqlcipher4()) GTEST_SKIP() << "SQLCipher 3 has no log of its own";
  StderrToFile capture(dir_.Path() + "stderr.txt");
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(":memory:", &db), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(db, "PRAGMA cipher_log = stderr; PRAGMA cipher_log_level = WARN;",
                         nullptr, nullptr, nullptr),
            SQLITE_OK);
  EXPECT_EQ(CountWithWrongKey(), -1);
  sqlite3_exec(db, "PRAGMA cipher_log_level = NONE;", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  std::vector<std::string> lines = capture.Stop();
  size_t engineLines = 0;
  for (const std::string& line : lines) engineLines += IsLibraryLine(line) ? 0 : 1;
  EXPECT_GT(engineLines, 0u);
}

}  // namespace
