// Crash-consistency campaign shared by crash_test (30 kills) and
// crash_long_test (200 kills). A forked child writes through the library
// (add_item batches of 100 records in one transaction, update_item of one
// batch's values, rmv_item of the two oldest batches in one transaction)
// and reports the start and the end of every call through a pipe. The
// parent kills it with SIGKILL after a random delay (seeded, printed), then
// reopens the file through Db and checks: PRAGMA integrity_check is ok,
// every batch is whole (100 rows, one value), every finished call is in the
// file, nothing that was never written is, and the call that was cut short
// either happened completely or not at all.
#ifndef IPC_DB_TESTS_SUPPORT_CRASHCAMPAIGN_H_
#define IPC_DB_TESTS_SUPPORT_CRASHCAMPAIGN_H_

#include <cstdint>
#include <string>

namespace ipc_db_test {

// The campaign's seed: IPC_DB_CRASH_SEED when set (to replay a failure),
// else drawn from the clock.
uint32_t CrashSeed();

// Runs `kills` kills in a fresh directory, checks the file after each (gtest
// assertions) and writes the outcome to results/crash/<name>.json.
void RunCrashCampaign(const std::string& name, int kills);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_CRASHCAMPAIGN_H_
