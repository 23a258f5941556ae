// The one export macro of libipc_db. The library is built with hidden
// visibility; only declarations marked IPC_DB_API are part of its ABI.
#ifndef IPC_DB_EXPORT_H_
#define IPC_DB_EXPORT_H_

#if defined(IPC_DB_BUILDING_LIBRARY)
#define IPC_DB_API __attribute__((visibility("default")))
#else
#define IPC_DB_API
#endif

#endif  // IPC_DB_EXPORT_H_
