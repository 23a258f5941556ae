// Internal logging helpers. The connection layer writes "RECORD: " entries
// with the exported debug flag; the schema, facade and table layer asks the
// platform for the flag first. Both go through ZB_WriteLog with module 4.
// The module text of every entry is one of the named constants below, one
// per subsystem, so that code can move between files without changing a log
// line.
#ifndef IPC_DB_SRC_BASE_LOG_H_
#define IPC_DB_SRC_BASE_LOG_H_

#include "ipc_db_export.h"
#include "zb_log.h"

// The connection layer's debug flag, defined in base/DBCommon.cpp and
// declared for applications in DBCommon.h; declared here again so that a
// file that logs does not take in the process and file utilities.
extern "C" IPC_DB_API int g_enRecordDebugFlag;

namespace ipc_db::detail {

constexpr unsigned int kLogModuleId = 4;
constexpr unsigned int kLogDebug = 0;
constexpr unsigned int kLogInfo = 1;
constexpr unsigned int kLogWarn = 2;
constexpr unsigned int kLogError = 3;

// Module texts. The schema, facade and table layer (src_db/src/db) has one
// for all its files; the connection layer has one per subsystem.
inline constexpr char kLogModuleDb[] = "src_db/src/db";
inline constexpr char kLogModuleDBConn[] = "src_db/src/DBConn";
inline constexpr char kLogModuleSQLiteDBConn[] = "src_db/src/SQLiteDBConn";
inline constexpr char kLogModuleDBCommon[] = "src_db/src/DBCommon";
inline constexpr char kLogModuleStorageMutex[] = "src_db/src/StorageMutex";

}  // namespace ipc_db::detail

// Connection layer: "RECORD: " prefix, g_enRecordDebugFlag, module text
// `module` (one of the kLogModule... texts).
#define RECORD_LOG(module, level, fmt, ...)                                           \
  ZB_WriteLog(::ipc_db::detail::kLogModuleId, (level),                                \
              static_cast<unsigned int>(g_enRecordDebugFlag), 0u, (module), __LINE__, \
              "RECORD: " fmt, ##__VA_ARGS__)

// Schema, facade and table layer: flag from the platform, format checked,
// module text kLogModuleDb.
#define DB_LOG(level, fmt, ...)                                                    \
  do {                                                                             \
    unsigned int dbLogFlag_ = Log_GetLogDebugEnable() & 0xFFu;                     \
    LOG_FORMAT_CHECK(::ipc_db::detail::kLogModuleId, (level), dbLogFlag_, 0, fmt); \
    ZB_WriteLog(::ipc_db::detail::kLogModuleId, (level), dbLogFlag_, 0u,           \
                ::ipc_db::detail::kLogModuleDb, __LINE__, fmt, ##__VA_ARGS__);     \
  } while (0)

#endif  // IPC_DB_SRC_BASE_LOG_H_
