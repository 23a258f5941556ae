// Reading and writing the connection's flags that more than one thread
// touches: the started, stop and running flags of both workers
// (m_bExecThread*, m_bMaintainThread*), m_bPaused and m_enDBStatus, and the
// process-wide counters that number the worker threads. A worker runs on a
// thread of the application's while another thread stops it, and the
// maintenance worker pauses and resumes the connection under the
// application's calls.
//
// These are public `int` members of CDBConn and CSqliteDBConn, in a layout
// that applications compile against, so they cannot become std::atomic<int>
// (whose size and alignment the standard does not tie to int's). Instead
// every access after construction goes through ReadFlag and WriteFlag,
// which use the compiler's __atomic builtins on the int itself: the layout
// stays, and each access is one indivisible, sequentially consistent load or
// store. A flag still carries no more than its own value: the handshakes
// poll it, they do not build a lock on it.
#ifndef IPC_DB_SRC_CONN_SHAREDFLAGS_H_
#define IPC_DB_SRC_CONN_SHAREDFLAGS_H_

namespace ipc_db::detail {

inline int ReadFlag(const int& flag) { return __atomic_load_n(&flag, __ATOMIC_SEQ_CST); }

inline void WriteFlag(int& flag, int value) {
  __atomic_store_n(&flag, value, __ATOMIC_SEQ_CST);
}

// Returns `counter` and adds one, as one indivisible step: the worker
// threads' name numbers, taken by threads that may start at once.
inline int TakeNext(int& counter) { return __atomic_fetch_add(&counter, 1, __ATOMIC_SEQ_CST); }

}  // namespace ipc_db::detail

#endif  // IPC_DB_SRC_CONN_SHAREDFLAGS_H_
