// Umbrella header of libipc_db: including it alone gives every exported
// class, type, constant, global and function of the library.
#ifndef IPC_DB_IPC_DB_H_
#define IPC_DB_IPC_DB_H_

#include "DBCommon.h"
#include "DBConn.h"
#include "DBTypes.h"
#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "StorageMutex.h"
#include "Table.h"
#include "TableChange.h"
#include "ipc_db_export.h"

#endif  // IPC_DB_IPC_DB_H_
