// Bounds for tests that wait on another thread, another process or the
// clock. The suites run on busy two-core machines and under qemu-arm, where
// a runnable thread can wait seconds for its turn. A wait for a condition
// that normally holds within milliseconds therefore gets a bound of tens of
// seconds: it ends as soon as the condition holds, so the bound costs
// nothing while the test passes. An upper bound on the elapsed time of a
// timed call gets headroom on top of the call's own figure; lower bounds stay
// what the call guarantees.
#ifndef IPC_DB_TESTS_SUPPORT_WAITBOUNDS_H_
#define IPC_DB_TESTS_SUPPORT_WAITBOUNDS_H_

namespace ipc_db_test {

// Longest wait for a condition that should come about promptly.
constexpr long kConditionWaitMs = 30000;

// Added to what a timed call should take when bounding its elapsed time from
// above: the scheduling delay a loaded, emulated machine may add.
constexpr long long kElapsedHeadroomMs = 3000;

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_WAITBOUNDS_H_
