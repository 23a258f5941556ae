// A replacement of the global operator new (every form) that shares
// FaultAlloc's countdown (FaultVfs.h): when the countdown says so, the
// allocation fails as the standard one does (std::bad_alloc, or null from
// the nothrow forms). Linked as an object library (ipc_test_failing_new)
// into the test programs that fail the library's own allocations; a
// program links it or not, never a second definition.
#ifndef IPC_DB_TESTS_SUPPORT_FAILINGOPERATORNEW_H_
#define IPC_DB_TESTS_SUPPORT_FAILINGOPERATORNEW_H_

namespace ipc_db_test {

// Blocks from operator new not yet given back to operator delete.
long long LiveOperatorNewBlocks();

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_FAILINGOPERATORNEW_H_
