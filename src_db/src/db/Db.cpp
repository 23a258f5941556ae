// The lifecycle of a Db: creating and configuring its one connection (Init),
// opening and closing it, tearing it down (UnInit), reporting its state, and
// forwarding re-keying and the journal mode. Db keeps no state besides the
// owned connection pointer and takes no lock of its own.
#include "Db.h"

#include <new>

#include "base/Log.h"
#include "base/OutOfMemory.h"
#include "conn/Connection.h"

using ipc_db::detail::ConnectionStatus;
using ipc_db::detail::DbOutOfMemory;
using ipc_db::detail::NewConnection;
using ipc_db::detail::kLogError;

namespace {

// GetDBStatus when there is no connection object.
constexpr unsigned int kDbStatusNoConnection = 2;
// reEncryptDB when there is no connection object.
constexpr long long kReEncryptNoConnection = 2;

// Logs the missing-connection message shared by the lifecycle calls.
void LogNoConnection() { DB_LOG(kLogError, "m_pDBConn is not exit\n"); }

// Runs `operation` on `conn` and logs a failure as "<name> failed!error:<result>\n".
// -1 (logged) without a connection.
long long Forward(CDBConn* conn, long long (CDBConn::*operation)(), const char* name) {
  if (conn == nullptr) {
    LogNoConnection();
    return -1;
  }
  const long long result = (conn->*operation)();
  if (result != 0) {
    DB_LOG(kLogError, "%s failed!error:%lld\n", name, result);
  }
  return result;
}

}  // namespace

long long Db::Init(unsigned long long ullDBType, const std::string& strInstallPath,
                   const std::string& strDBFile, const std::string& strDBJournal,
                   char* szEncryptKey, unsigned int uiKeyLen) try {
  if (szEncryptKey == nullptr) {
    DB_LOG(kLogError, "szEncryptKey is null\n");
    return -1;
  }
  // Only kind 0 (SQLCipher) exists; the kind is tested on its low word.
  if (static_cast<unsigned int>(ullDBType) != 0) return -1;

  // An earlier connection is not looked at: a second Init leaks it.
  CDBConn* conn = NewConnection();
  m_pDBConn = conn;
  if (conn == nullptr) {
    DB_LOG(kLogError, "New DBConn failed\n");
    return -1;
  }
  conn->m_strInstallPath = strInstallPath;
  conn->SetDBFile(strDBFile);
  conn->SetDBJournal(strDBJournal);
  conn->SetEncryptKey(szEncryptKey, uiKeyLen);
  return 0;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::Init", -1LL);
}

long long Db::OpenDB() try {
  return Forward(m_pDBConn, &CDBConn::OpenConnection, "OpenConnection");
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::OpenDB", -1LL);
}

long long Db::CloseDB() {
  return Forward(m_pDBConn, &CDBConn::CloseConnection, "CloseConnection");
}

long long Db::UnInit() {
  if (m_pDBConn == nullptr) return 0;
  const long long closed = CloseDB();
  if (closed != 0) {
    DB_LOG(kLogError, "CloseConnection failed!error:%lld\n", closed);
  }
  delete m_pDBConn;
  m_pDBConn = nullptr;
  return 0;
}

unsigned int Db::GetDBStatus() {
  if (m_pDBConn == nullptr) {
    LogNoConnection();
    return kDbStatusNoConnection;
  }
  return static_cast<unsigned int>(ConnectionStatus(m_pDBConn));
}

long long Db::reEncryptDB(const char* szEncryptKey, unsigned int uiKeyLen) try {
  if (m_pDBConn == nullptr) {
    LogNoConnection();
    return kReEncryptNoConnection;
  }
  if (szEncryptKey == nullptr) {
    DB_LOG(kLogError, "szEncryptKey is null\n");
    return -1;
  }
  return m_pDBConn->ReEncryptDB(szEncryptKey, uiKeyLen);
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::reEncryptDB", -1LL);
}

long long Db::SetJournalAttr(DB_JOURNAL_TYPE type) try {
  if (m_pDBConn == nullptr) {
    LogNoConnection();
    return -1;
  }
  const long long result = m_pDBConn->SetDBJournalAttr(type);
  if (result != 0) {
    DB_LOG(kLogError, "SetDBJournalAttr failed\n");
  }
  return result;
} catch (const std::bad_alloc&) {
  return DbOutOfMemory("Db::SetJournalAttr", -1LL);
}
