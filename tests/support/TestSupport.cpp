// Keys, and the repair tool's path and its stand-in's, as the build configured them.
#include "TestSupport.h"

namespace ipc_db_test {

std::string MakeKey(char seed) { return std::string(64, seed); }

const char* RepairToolPath() { return IPC_DB_TEST_REPAIR_TOOL; }

const char* RepairToolStandInPath() { return IPC_DB_TEST_WRAPPER_PATH; }

}  // namespace ipc_db_test
