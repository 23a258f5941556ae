// Crash consistency: 30 SIGKILLs of a child that writes through the
// library, each followed by a reopen and a full check of the file (see
// support/CrashCampaign.h). crash_long_test runs the same with 200 kills.
#include <gtest/gtest.h>

#include "CrashCampaign.h"

namespace {

TEST(CrashConsistency, ThirtyKills) { ipc_db_test::RunCrashCampaign("crash_test", 30); }

}  // namespace
