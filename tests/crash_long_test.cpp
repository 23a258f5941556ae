// Crash consistency, long run: 200 SIGKILLs of a child that writes through
// the library, each followed by a reopen and a full check of the file (see
// support/CrashCampaign.h). Labelled "long".
#include <gtest/gtest.h>

#include "CrashCampaign.h"

namespace {

TEST(CrashConsistencyLong, TwoHundredKills) {
  ipc_db_test::RunCrashCampaign("crash_long_test", 200);
}

}  // namespace
