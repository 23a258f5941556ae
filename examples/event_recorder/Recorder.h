// The camera event recorder: one run opens (or creates) the encrypted event
// database in a data directory, records a few thousand alarm events, answers
// the questions a camera application asks, updates, prunes, migrates the
// schema, rotates the key, compacts and closes, and prints a report of every
// step with its figures.
#ifndef IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDER_H_
#define IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDER_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "KeyStore.h"
#include "Records.h"
#include "Report.h"
#include "ipc_db.h"
#include "ipc_db_helpers.h"

namespace recorder {

// Tunables of one run.
struct RecorderOptions {
  std::string directory = "./ipc_db_data";
  int events_per_run = 4000;
  int batch_size = 250;
};

// Figures gathered on the way, printed in the summary.
struct RunFigures {
  long long previous_runs = 0;
  long long events_found = 0;
  long long events_recorded = 0;
  long long events_removed = 0;
  long long events_stored = 0;
  long long channel_counts[kChannelCount] = {};
  long long acknowledged = 0;
  long long high_severity = 0;
  int schema_version = 1;
  unsigned int key_generation = 0;
  long long file_bytes = 0;
};

class Recorder {
 public:
  explicit Recorder(RecorderOptions options);
  ~Recorder();

  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Runs every step in order. 0 when all succeeded; 1 after the first
  // failure (reported on stderr), with the database closed.
  int Run();

 private:
  using StepFunction = bool (Recorder::*)();
  struct StepEntry {
    const char* label;
    StepFunction function;
  };

  // Steps, in the order Run calls them.
  bool PrepareDirectory();
  bool DescribeRecords();
  bool ChooseKey();
  bool OpenDatabase();
  bool ChooseJournalMode();
  bool CreateTables();
  bool ReadPreviousRun();
  bool RecordEvents();
  bool AddIndexes();
  bool QueryLatestOfChannel();
  bool QueryTimeRange();
  bool QueryTypes();
  bool CountPerChannel();
  bool NewestAndOldest();
  bool ReadTexts();
  bool ReadBriefs();
  bool AcknowledgeAlarms();
  bool ReplaceThumbnail();
  bool ApplyRetention();
  bool MigrateSchema();
  bool SaveRunInfo();
  bool RotateKey();
  bool Vacuum();
  bool CloseDatabase();
  void PrintSummary();

  // Helpers.
  bool Fail(const std::string& reason);
  // Init and OpenDB with `generation`'s key: 0 or the first failure's code.
  long long OpenQuietly(unsigned int generation);
  // Opens with `generation`'s key and classifies the file (see the .cpp).
  // True when it is usable, the database left open; `retried` tells whether
  // the classifier needed a second open, `state` what it found.
  bool OpenAndProveKey(unsigned int generation, bool* retried, ipc_db::DbState* state);
  // Salvages the damaged database file (closed first); false after a
  // failure, reported.
  bool SalvageDatabase();
  void ReleaseDatabase();
  bool Count(DbFilters& filters, long long* count);
  bool CountAll(long long* count);
  bool InsertBatch(std::vector<AlarmEvent>& batch, size_t count);
  bool ReadConfig(const char* name, ConfigEntry* entry, bool* found);
  bool WriteConfig(const char* name, const std::string& value);
  bool IndexExists(const char* name);
  bool SetSeverityForTypes(int32_t severity, const int32_t* types, int count);
  bool ReadSeverityBack(std::string* read_back);
  bool CollectFinalFigures();
  std::string DatabasePath() const;

  RecorderOptions options_;
  std::string directory_;  // ends with "/"
  Report report_;
  Stopwatch run_clock_;
  const char* label_ = "";
  int32_t now_ = 0;
  RecorderSchema schema_;
  KeyStore keys_;
  ipc_db::ScopedDb db_;  // released by ReleaseDatabase and the destructor
  std::unique_ptr<Table> events_;
  std::unique_ptr<Table> config_;
  bool migrated_this_run_ = false;
  RunFigures figures_;
};

}  // namespace recorder

#endif  // IPC_DB_EXAMPLES_EVENT_RECORDER_RECORDER_H_
