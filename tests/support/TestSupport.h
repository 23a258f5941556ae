// The helpers nearly every test uses: log capture, SQL capture, temporary
// directories, file and process helpers (each in its own header, included
// here), keys, and where the repair tool and its stand-in live.
#ifndef IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_
#define IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_

#include <cstdint>
#include <string>

#include "FileUtil.h"
#include "LogCapture.h"
#include "SqlCapture.h"
#include "TempDir.h"

namespace ipc_db_test {

// An integer filter value travels in the pointer slot of a DbFilter.
inline void* IntSlot(long long value) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(value));
}

// A 64-character key made of `seed` repeated.
std::string MakeKey(char seed);
// Path of the repair tool compiled into the library: the device's,
// IPC_DB_REPAIR_TOOL ("/usr/app/bin/sqlite3" unless the build says
// otherwise). The tests' environment (TestEnv.h) runs the stand-in below
// in its place.
const char* RepairToolPath();
// Path of the build tree's stand-in for the repair tool (tools/sqlite3).
const char* RepairToolStandInPath();

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_
