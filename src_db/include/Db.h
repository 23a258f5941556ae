// Db: the object an application holds for one encrypted database. It owns
// the connection from Init to UnInit, forwards the lifecycle calls to it,
// creates, extends and drops tables, and holds the member naming rule.
//
// Threads: Db takes no lock of its own. Do not run Init, UnInit, OpenDB or
// CloseDB beside any other call on the same Db.
#ifndef IPC_DB_DB_H_
#define IPC_DB_DB_H_

#include <string>

#include "DBTypes.h"
#include "ipc_db_export.h"

class CDBConn;
class Meta;
class Member;
class Table;
class TableChange;

class IPC_DB_API Db {
 public:
  // ---- Lifecycle ----

  // Creates the connection (kind 0: SQLCipher), sets its install directory
  // (must end in "/"), file names and key. Does not open. Returns 0; -1 for
  // a null key ("szEncryptKey is null\n"), a kind whose low 32 bits are not
  // 0 (no log) or a failed allocation ("New DBConn failed\n"). A second Init
  // without UnInit leaks the first connection. The key is copied (at most
  // 65 bytes); the caller keeps ownership of its buffer.
  long long Init(unsigned long long ullDBType, const std::string& strInstallPath,
                 const std::string& strDBFile, const std::string& strDBJournal,
                 char* szEncryptKey, unsigned int uiKeyLen);
  // Opens the database. -1 without a connection ("m_pDBConn is not exit\n"),
  // else OpenConnection's result (logged when non-zero).
  long long OpenDB();
  // Closes the database. -1 without a connection, else CloseConnection's
  // result (logged when non-zero).
  long long CloseDB();
  // Closes (whatever that gives) and deletes the connection. Always 0.
  long long UnInit();
  // 0 closed, 1 open, 2 no connection (logged).
  unsigned int GetDBStatus();
  // Re-keys the open database. 2 without a connection, -1 for a null key,
  // else the connection's ReEncryptDB result.
  long long reEncryptDB(const char* szEncryptKey, unsigned int uiKeyLen);
  // Sets the journal mode until the next open. -1 without a connection,
  // else SetDBJournalAttr's result ("SetDBJournalAttr failed\n" if non-zero).
  long long SetJournalAttr(DB_JOURNAL_TYPE type);

  // ---- Tables ----

  // Prepares every member of `meta` and creates its table when missing.
  // Returns a new Table owned by the caller, or null (logged). REQUIRES:
  // Init succeeded ("Db::createTable m_pDBConn is null.\n" and null
  // otherwise); every member of `meta` set with a type_meta (null and one
  // error entry otherwise); `meta` outlives the Table.
  Table* createTable(Meta* meta, int analyze_name);
  // Drops the table of `meta`. 0 (also when it does not exist) or -1.
  // REQUIRES: Init succeeded ("Db::destroyTable m_pDBConn is null.\n" and
  // -1 otherwise).
  long long destroyTable(Meta* meta);
  // Reads the stored CREATE text of `tableName` into `sql`. 0, -1, -201
  // without a connection, or ExecuteSQL's code. `sql` unchanged on failure.
  long long getTableSql(std::string& tableName, std::string& sql);
  // 1 exists, 0 does not, -201 without a connection.
  int getTableStatus(std::string& tableName);
  // Adds the members of `change` as columns with one ALTER TABLE statement
  // (SQLite accepts only one column per statement). 0 or -1. REQUIRES: Init
  // succeeded; `change` not empty, its members set, each with a type_meta.
  // Otherwise -1 and one error entry ("Db::updateTable m_pDBConn is
  // null.\n", "TableChange is empty.\n", "TableChange has a null
  // member.\n", "type_meta of member <name> is null.\n"), no statement.
  long long updateTable(std::string tableName, TableChange& change,
                        std::string defaultValue, int analyze_name);
  // "VACUUM;". 0 or -1 ("m_pDBConn is null." without a connection).
  long long db_vacuum();

  // ---- Member naming rule (no database access) ----

  // Fills member->sql_type from the first letter of its name when it is
  // still "unknown_type" (c CHAR(n), b BLOB, t TEXT, i INTEGER, d datetime)
  // and returns a copy. REQUIRES: member->type_meta not null (otherwise
  // "unknown_type" and the error entry "type_meta of member <name> is
  // null.\n").
  std::string getType(Member* member);
  // Plain column name: without the type letter and without everything from
  // the last "_". A name not starting with a type letter is returned as is.
  std::string getName(std::string name);
  // Each sets its flag from the letters after the last "_" (p, a, n, d).
  void getPrimaryKey(Member* member);
  void getAutoIncrement(Member* member);
  void getNotNull(Member* member);
  void getDefaultZero(Member* member);
  // getType, then the four flag readers.
  void preProcMember(Member* member);

  CDBConn* m_pDBConn = nullptr;  // owned; null before Init and after UnInit
};

#endif  // IPC_DB_DB_H_
