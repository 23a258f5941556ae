// Internal logging helpers. The connection layer writes "RECORD: " entries
// with the exported debug flag; the schema, facade and table layer asks the
// platform for the flag first. Both go through ZB_WriteLog with module 4.
#ifndef IPC_DB_SRC_LOG_H_
#define IPC_DB_SRC_LOG_H_

#include "DBCommon.h"
#include "zb_log.h"

namespace ipc_db::detail {

constexpr unsigned int kLogModule = 4;
constexpr unsigned int kLogDebug = 0;
constexpr unsigned int kLogInfo = 1;
constexpr unsigned int kLogWarn = 2;
constexpr unsigned int kLogError = 3;

}  // namespace ipc_db::detail

// Connection layer: "RECORD: " prefix, g_enRecordDebugFlag, module path `file`.
#define RECORD_LOG(file, level, fmt, ...)                                           \
  ZB_WriteLog(::ipc_db::detail::kLogModule, (level),                                \
              static_cast<unsigned int>(g_enRecordDebugFlag), 0u, (file), __LINE__, \
              "RECORD: " fmt, ##__VA_ARGS__)

// Schema, facade and table layer: flag from the platform, format checked.
#define DB_LOG(level, fmt, ...)                                                         \
  do {                                                                                  \
    unsigned int dbLogFlag_ = Log_GetLogDebugEnable() & 0xFFu;                          \
    LOG_FORMAT_CHECK(::ipc_db::detail::kLogModule, (level), dbLogFlag_, 0, fmt);        \
    ZB_WriteLog(::ipc_db::detail::kLogModule, (level), dbLogFlag_, 0u, "src_db/src/db", \
                __LINE__, fmt, ##__VA_ARGS__);                                          \
  } while (0)

#endif  // IPC_DB_SRC_LOG_H_
