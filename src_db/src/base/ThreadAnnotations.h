// The library's lock rules, written where clang's thread-safety analysis
// (-Wthread-safety) can check them: which type is a lock, which scope holds
// one, which data a lock guards, which functions need or must not hold a
// lock. Compilers without the attributes (gcc) see nothing: every macro
// expands to nothing there. The build preset `thread-safety` compiles the
// library with clang and -Wthread-safety -Werror (docs/internals.md, section
// 3, says what the annotations cover and what they cannot).
//
// The public class CSMutex carries the same attributes through its own
// prefixed macro in StorageMutex.h, since a public header cannot include
// this one.
#ifndef IPC_DB_SRC_BASE_THREADANNOTATIONS_H_
#define IPC_DB_SRC_BASE_THREADANNOTATIONS_H_

#if defined(__clang__)
#define IPC_DB_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define IPC_DB_THREAD_ATTRIBUTE(x)
#endif

// A type whose objects are locks.
#define CAPABILITY(name) IPC_DB_THREAD_ATTRIBUTE(capability(name))
// A type whose objects hold a lock for their lifetime.
#define SCOPED_CAPABILITY IPC_DB_THREAD_ATTRIBUTE(scoped_lockable)
// Data read or written only while the lock is held.
#define GUARDED_BY(lock) IPC_DB_THREAD_ATTRIBUTE(guarded_by(lock))
// Data behind a pointer, read or written only while the lock is held.
#define PT_GUARDED_BY(lock) IPC_DB_THREAD_ATTRIBUTE(pt_guarded_by(lock))
// A function called only with the locks held.
#define REQUIRES(...) IPC_DB_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
// A function called only without the locks (it takes them itself).
#define EXCLUDES(...) IPC_DB_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
// A function that returns with the locks held.
#define ACQUIRE(...) IPC_DB_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
// A function that holds the locks when it returns `result`.
#define TRY_ACQUIRE(...) IPC_DB_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
// A function that returns with the locks released.
#define RELEASE(...) IPC_DB_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
// A function that returns a reference to the lock named.
#define RETURN_CAPABILITY(lock) IPC_DB_THREAD_ATTRIBUTE(lock_returned(lock))
// A function left out of the analysis. Each use says why beside it.
#define NO_THREAD_SAFETY_ANALYSIS IPC_DB_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // IPC_DB_SRC_BASE_THREADANNOTATIONS_H_
