// The helpers nearly every test uses: log capture, SQL capture, temporary
// directories, file and process helpers (each in its own header, included
// here), keys, and where the repair tool under test lives.
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
// Path of the repair tool compiled into the library under test.
const char* RepairToolPath();
// True when the library's repair tool is the build tree's test wrapper.
bool RepairToolIsTestWrapper();

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TESTSUPPORT_H_
