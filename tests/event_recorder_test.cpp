// End-to-end runs of the camera event recorder example on a temporary data
// directory. The figures of its report are checked against the database
// itself, read independently with the sqlcipher shell and the key that the
// directory's key-generation marker names; a second run must find what the
// first left. Also: an interrupted key rotation is completed or undone, and
// a missing marker stops the run with a clear message, and a damaged file
// is salvaged and the run goes on; what that salvage costs in time, memory
// and space is measured and goes to results/salvage_cost.
#include <gtest/gtest.h>

#include <sqlcipher/sqlite3.h>

#include <chrono>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "EngineFormat.h"
#include "PageTrace.h"
#include "ReliabilityTestSupport.h"
#include "TestResults.h"
#include "TestSupport.h"
#include "ipc_db_helpers.h"

#if defined(IPC_DB_EVENT_RECORDER)

#include "KeyStore.h"

namespace {

using ipc_db_test::MakeTornFirstPage;
using ipc_db_test::ReadFileBytes;
using ipc_db_test::RunCommand;
using ipc_db_test::TempDir;

class EventRecorderTest : public ::testing::Test {
 protected:
  // A directory two levels below the temporary one: the recorder makes both.
  std::string DataDir() const { return tmp_.Path() + "camera/data"; }
  std::string DatabaseFile() const { return DataDir() + "/events.db"; }

  int Run(std::string* output, const std::string& extra = "") {
    std::string command =
        std::string("'") + IPC_DB_EVENT_RECORDER + "' " + extra + " '" + DataDir() + "'";
    return RunCommand(command, output);
  }

  // Runs `query` in the sqlcipher shell keyed with `generation`'s key.
  // Returns the shell's exit status; `output` gets what it printed.
  int Sql(unsigned int generation, const std::string& query, std::string* output) {
    const std::string script = tmp_.Path() + "query.sql";
    std::ofstream(script) << ipc_db_test::ShellKeyLines(recorder::KeyForGeneration(generation))
                          << query << "\n";
    return RunCommand(std::string(IPC_DB_SQLCIPHER_SHELL) + " -batch '" + DatabaseFile() +
                          "' < '" + script + "'",
                      output);
  }

  // The single number a query prints; -1 when the query fails.
  long long SqlNumber(unsigned int generation, const std::string& query) {
    std::string output;
    if (Sql(generation, query, &output) != 0) return -1;
    try {
      return std::stoll(output);
    } catch (...) {
      ADD_FAILURE() << query << " printed: " << output;
      return -1;
    }
  }

  unsigned int MarkerGeneration() {
    return static_cast<unsigned int>(
        std::stoul(ReadFileBytes(DataDir() + "/key_generation")));
  }

  TempDir tmp_;
};

// The number after `label` on a summary line ("    label     123").
long long Figure(const std::string& report, const std::string& label) {
  std::smatch match;
  std::regex pattern("\n    " + label + " +(-?[0-9]+)");
  if (!std::regex_search(report, match, pattern)) {
    ADD_FAILURE() << "no figure '" << label << "' in:\n" << report;
    return -1;
  }
  return std::stoll(match[1]);
}

// channel -> count from the summary's "per channel" line.
std::map<int, long long> ChannelFigures(const std::string& report) {
  std::map<int, long long> counts;
  std::smatch line;
  EXPECT_TRUE(std::regex_search(report, line, std::regex("\n    per channel +([^\n]*)")));
  std::string text = line[1];
  std::regex entry("ch([0-9]+) ([0-9]+)");
  for (std::sregex_iterator it(text.begin(), text.end(), entry), end; it != end; ++it) {
    counts[std::stoi((*it)[1])] = std::stoll((*it)[2]);
  }
  return counts;
}

class RecorderCheck : public EventRecorderTest {
 public:
  // Checks the figures of a finished run against the database file, read
  // with the key of `generation` in one sqlcipher session (each keyed open
  // costs a key derivation).
  void ExpectMatches(const std::string& report, unsigned int generation) {
    EXPECT_EQ(Figure(report, "key generation"), generation);
    EXPECT_EQ(MarkerGeneration(), generation);
    const long long stored = Figure(report, "events stored");
    EXPECT_GT(stored, 0);
    EXPECT_EQ(Figure(report, "events found") + Figure(report, "events recorded") -
                  Figure(report, "events removed"),
              stored);
    std::map<int, long long> channels = ChannelFigures(report);
    ASSERT_EQ(channels.size(), 8u);

    // Each query prints one line; expected values in the same order.
    std::vector<std::pair<std::string, std::string>> checks = {
        {"select count(*) from t_alarm_event;", std::to_string(stored)},
        {"select count(*) from t_alarm_event where Acked = 1;",
         std::to_string(Figure(report, "acknowledged"))},
        {"select count(*) from t_alarm_event where Severity = 3;",
         std::to_string(Figure(report, "severity 3"))},
        {"select count(*) from t_alarm_event where Type in (3, 5);",
         std::to_string(Figure(report, "severity 3"))},
        // Channel 1's alarms older than an hour were acknowledged.
        {"select count(*) from t_alarm_event where Channel = 1 and Acked = 0 and Time < "
         "strftime('%s','now') - 3700;",
         "0"},
        // Retention: nothing older than 21 days (a minute of slack for the clock).
        {"select count(*) from t_alarm_event where Time < strftime('%s','now') - 21 * "
         "86400 "
         "- 60;",
         "0"},
        {"select count(*) from sqlite_master where type = 'index' and name in "
         "('idx_alarm_time', 'idx_alarm_channel');",
         "2"},
        {"select count(*) from sqlite_master where name = 't_alarm_event' and sql like "
         "'%, Severity INTEGER DEFAULT 1)';",
         "1"},
        {"select Value from t_recorder_config where Name = 'run_count';",
         std::to_string(Figure(report, "run"))},
        {"select Value from t_recorder_config where Name = 'events_at_close';",
         std::to_string(stored)},
    };
    for (const auto& channel : channels) {
      checks.push_back({"select count(*) from t_alarm_event where Channel = " +
                            std::to_string(channel.first) + ";",
                        std::to_string(channel.second)});
    }
    std::string script;
    for (const auto& check : checks) script += check.first + "\n";
    std::string output;
    ASSERT_EQ(Sql(generation, script, &output), 0) << output;
    std::vector<std::string> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(lines.size(), checks.size()) << output;
    for (size_t i = 0; i < checks.size(); ++i) {
      EXPECT_EQ(lines[i], checks[i].second) << checks[i].first;
    }

    // The previous generation's key no longer opens the file.
    std::string refused;
    EXPECT_NE(Sql(generation - 1, "select count(*) from t_alarm_event;", &refused), 0);
    EXPECT_NE(refused.find(sqlite3_errstr(SQLITE_NOTADB)), std::string::npos)
        << refused;
  }
};

TEST_F(RecorderCheck, TwoRunsReportWhatTheDatabaseHolds) {
  std::string first;
  ASSERT_EQ(Run(&first), 0) << first;
  EXPECT_NE(first.find("(created)"), std::string::npos) << first;
  EXPECT_NE(first.find("none: first run, 0 events in the table"), std::string::npos)
      << first;
  EXPECT_NE(first.find("version 1 -> 2: column Severity added"), std::string::npos)
      << first;
  EXPECT_EQ(first.find("FAILED"), std::string::npos) << first;
  EXPECT_EQ(Figure(first, "events found"), 0);
  EXPECT_EQ(Figure(first, "events recorded"), 4000);
  EXPECT_EQ(Figure(first, "run"), 1);
  EXPECT_EQ(Figure(first, "schema version"), 2);
  ExpectMatches(first, 1);

  std::string second;
  ASSERT_EQ(Run(&second), 0) << second;
  const long long left = Figure(first, "events stored");
  EXPECT_EQ(Figure(second, "events found"), left);
  EXPECT_NE(second.find("found " + std::to_string(left) + " events, it left " +
                        std::to_string(left) + " (consistent)"),
            std::string::npos)
      << second;
  EXPECT_NE(second.find("already at version 2"), std::string::npos) << second;
  EXPECT_NE(second.find("idx_alarm_time on Time (already there)"), std::string::npos)
      << second;
  EXPECT_EQ(Figure(second, "run"), 2);
  EXPECT_GT(Figure(second, "events stored"), left);
  ExpectMatches(second, 2);
}

TEST_F(RecorderCheck, AnInterruptedRotationToAKeyInUseIsCompleted) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  ASSERT_EQ(MarkerGeneration(), 1u);
  // As if the program stopped after re-keying but before renaming the marker.
  std::string rekeyed;
  ASSERT_EQ(Sql(1, "PRAGMA rekey='" + recorder::KeyForGeneration(2) + "';", &rekeyed), 0)
      << rekeyed;
  std::ofstream(DataDir() + "/key_generation.next") << "2\n";

  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  EXPECT_NE(output.find("key generation 2 from"), std::string::npos) << output;
  EXPECT_NE(output.find("an interrupted rotation to generation 2 was completed"),
            std::string::npos)
      << output;
  EXPECT_FALSE(ipc_db_test::FileExists(DataDir() + "/key_generation.next"));
  ExpectMatches(output, 3);
}

TEST_F(RecorderCheck, AnInterruptedRotationBeforeTheReKeyIsUndone) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  std::ofstream(DataDir() + "/key_generation.next") << "2\n";

  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  EXPECT_NE(output.find("key generation 1 from"), std::string::npos) << output;
  EXPECT_NE(output.find("an interrupted rotation to generation 2 was undone"),
            std::string::npos)
      << output;
  ExpectMatches(output, 2);
}

TEST_F(RecorderCheck, AFirstOpenFailingAfterATornFirstPageIsNotTakenForAWrongKey) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  const unsigned int generation = MarkerGeneration();
  const long long stored = SqlNumber(generation, "select count(*) from t_alarm_event;");
  ASSERT_GT(stored, 0);
  MakeTornFirstPage(DatabaseFile(), recorder::KeyForGeneration(generation));
  ASSERT_GT(std::filesystem::file_size(DatabaseFile() + "-journal"), 0u);

  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  // SQLCipher 3.4.1 reads the torn page 1 before it rolls the journal back;
  // SQLCipher 4 rolls it back first, so its first open reads every row.
  const size_t retried = output.find(
      "the first open after a power cut failed its reads, the second read every row");
  if (ipc_db_test::EngineIsSqlcipher4()) {
    EXPECT_EQ(retried, std::string::npos) << output;
  } else {
    EXPECT_NE(retried, std::string::npos) << output;
  }
  EXPECT_EQ(Figure(output, "events found"), stored);
  ExpectMatches(output, generation + 1);
}

// `bytes` with eight bytes changed in the middle of page `page`: on a keyed
// file the page's authentication code no longer fits, and none of its rows
// reads.
std::string WithDamagedPage(std::string bytes, long long page, long long pageSize) {
  const size_t middle = static_cast<size_t>((page - 1) * pageSize + pageSize / 2);
  for (size_t i = 0; i < 8; ++i) bytes[middle + i] = static_cast<char>(bytes[middle + i] ^ 0x5A);
  return bytes;
}

// One leaf of the event table is damaged (bytes in its middle changed:
// the page's authentication code no longer fits, so none of its rows
// reads). The next run finds the file damaged, salvages it - every row on
// the other leaves kept, the damaged file beside it - says so, and records
// its events on the salvaged file.
TEST_F(RecorderCheck, ADamagedFileIsSalvagedAndTheRunGoesOn) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 3000"), 0) << output;
  const unsigned int generation = MarkerGeneration();
  const std::string key = recorder::KeyForGeneration(generation);
  const ipc_db_test::TablePages pages =
      ipc_db_test::TracePages(DatabaseFile(), key, "t_alarm_event");
  ASSERT_TRUE(pages.ok);
  ASSERT_GE(pages.leaves.size(), 3u);
  const long long leaf = *std::next(pages.leaves.begin(), pages.leaves.size() / 2);
  long long onIntactLeaves = 0;
  for (const auto& rowAndLeaf : pages.leafOfRowid) onIntactLeaves += rowAndLeaf.second != leaf;
  ASSERT_LT(onIntactLeaves, static_cast<long long>(pages.leafOfRowid.size()));
  const std::string bytes = WithDamagedPage(ReadFileBytes(DatabaseFile()), leaf, pages.pageSize);
  std::ofstream(DatabaseFile(), std::ios::binary | std::ios::trunc) << bytes;
  std::printf("damaged leaf %lld of t_alarm_event: %lld of %zu rows on intact leaves\n", leaf,
              onIntactLeaves, pages.leafOfRowid.size());

  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  EXPECT_NE(output.find("events.db was damaged: salvaged "), std::string::npos) << output;
  EXPECT_NE(output.find("t_alarm_event " + std::to_string(onIntactLeaves)), std::string::npos)
      << output;
  EXPECT_NE(output.find("the damaged file kept as " + DatabaseFile() + ".damaged"),
            std::string::npos)
      << output;
  EXPECT_EQ(ReadFileBytes(DatabaseFile() + ".damaged"), bytes);
  EXPECT_EQ(Figure(output, "events found"), onIntactLeaves);
  EXPECT_EQ(Figure(output, "events recorded"), 300);
  ExpectMatches(output, generation + 1);
}

// What salvaging a realistic file costs: the file of one default run (4000
// events written, pruned to three weeks, indexed, keyed) with three leaves of
// its event table damaged (at a quarter, half and three quarters of the
// table). Wall time of Salvage(), SQLite's memory high-water mark during it,
// and the space it needs beside the original (the new file; the original's
// second name is a hard link). Under the emulator the time is the
// emulator's, not the device's.
TEST_F(EventRecorderTest, SalvageCostOnARecorderFile) {
  std::string output;
  ASSERT_EQ(Run(&output), 0) << output;
  const unsigned int generation = MarkerGeneration();
  const std::string key = recorder::KeyForGeneration(generation);
  const ipc_db_test::TablePages pages =
      ipc_db_test::TracePages(DatabaseFile(), key, "t_alarm_event");
  ASSERT_TRUE(pages.ok);
  ASSERT_GE(pages.leaves.size(), 8u);
  std::string bytes = ReadFileBytes(DatabaseFile());
  std::set<long long> damaged;
  for (size_t quarter = 1; quarter <= 3; ++quarter) {
    damaged.insert(*std::next(pages.leaves.begin(), pages.leaves.size() * quarter / 4));
  }
  for (long long page : damaged) bytes = WithDamagedPage(bytes, page, pages.pageSize);
  std::ofstream(DatabaseFile(), std::ios::binary | std::ios::trunc) << bytes;
  long long onIntactLeaves = 0;
  for (const auto& rowAndLeaf : pages.leafOfRowid) {
    onIntactLeaves += damaged.count(rowAndLeaf.second) == 0 ? 1 : 0;
  }

  sqlite3_memory_highwater(1);
  const long long heapBefore = sqlite3_memory_used();
  const auto start = std::chrono::steady_clock::now();
  const ipc_db::SalvageResult result = ipc_db::Salvage(DataDir() + "/", "events.db", key);
  const double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
          .count();
  const long long heapPeak = sqlite3_memory_highwater(0) - heapBefore;
  ASSERT_EQ(result.status, ipc_db::SalvageStatus::kSalvaged) << result.detail;
  const long long rowsSalvaged = SqlNumber(generation, "select count(*) from t_alarm_event;");
  EXPECT_EQ(rowsSalvaged, onIntactLeaves);
  const long long before = static_cast<long long>(bytes.size());
  const long long after = static_cast<long long>(std::filesystem::file_size(DatabaseFile()));
  std::printf("salvage of %lld bytes (%lld pages of %lld bytes, %zu damaged): %.1f ms, "
              "SQLite heap peak %lld bytes above its %lld, new file %lld bytes; %lld of %zu "
              "event rows kept (all %lld on intact leaves), %lld rows in all\n",
              before, result.pages_in_file, pages.pageSize, damaged.size(), ms, heapPeak,
              heapBefore, after, rowsSalvaged, pages.leafOfRowid.size(), onIntactLeaves,
              result.rows());
  ipc_db_test::JsonObject json;
  json.Add("engine", ipc_db_test::EngineCipherVersion())
      .Add("file_bytes", before)
      .Add("pages", result.pages_in_file)
      .Add("page_size", pages.pageSize)
      .Add("damaged_pages", static_cast<long long>(damaged.size()))
      .Add("event_rows", static_cast<long long>(pages.leafOfRowid.size()))
      .Add("event_rows_on_intact_leaves", onIntactLeaves)
      .Add("event_rows_salvaged", rowsSalvaged)
      .Add("rows_salvaged", result.rows())
      .Add("salvage_ms", ms)
      .Add("sqlite_heap_peak_bytes", heapPeak)
      .Add("new_file_bytes", after);
  ipc_db_test::WriteResultJson("salvage_cost", "recorder_file", json.Text());
}

TEST_F(EventRecorderTest, AMissingKeyMarkerStopsTheRunWithAClearMessage) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  const long long stored = SqlNumber(1, "select count(*) from t_alarm_event;");
  ASSERT_GT(stored, 0);
  ASSERT_EQ(std::remove((DataDir() + "/key_generation").c_str()), 0);

  EXPECT_EQ(Run(&output, "--events 300"), 1);
  EXPECT_NE(output.find("FAILED at step 3 (choose key): "), std::string::npos) << output;
  EXPECT_NE(output.find("key_generation is missing: no key to open it with"),
            std::string::npos)
      << output;
  EXPECT_EQ(SqlNumber(1, "select count(*) from t_alarm_event;"), stored);
}

TEST_F(EventRecorderTest, AMarkerNamingAnotherKeyStopsTheRunWithAClearMessage) {
  std::string output;
  ASSERT_EQ(Run(&output, "--events 300"), 0) << output;
  std::ofstream(DataDir() + "/key_generation") << "5\n";

  EXPECT_EQ(Run(&output, "--events 300"), 1);
  EXPECT_NE(
      output.find("FAILED at step 4 (open database): the key of generation 5 does not "
                  "open"),
      std::string::npos)
      << output;
  EXPECT_NE(output.find("events.db (wrong key)"), std::string::npos) << output;
  EXPECT_GT(SqlNumber(1, "select count(*) from t_alarm_event;"), 0);
}

TEST_F(EventRecorderTest, RejectsABadOption) {
  std::string output;
  EXPECT_EQ(Run(&output, "--events 0"), 2);
  EXPECT_NE(output.find("--events takes a number from 1 to 1000000"), std::string::npos)
      << output;
  EXPECT_FALSE(ipc_db_test::FileExists(DataDir()));
}

}  // namespace

#else

TEST(EventRecorderTest, NeedsTheExamples) {
  GTEST_SKIP() << "built without the examples (IPC_DB_BUILD_EXAMPLES=OFF)";
}

#endif
