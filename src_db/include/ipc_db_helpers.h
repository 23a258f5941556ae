// Companion header of libipc_db: safer ways to use the library's own calls,
// written only on its public API and compiled into the application (header
// only, nothing exported, nothing added to the library).
//
//   ScopedDb           owns one Db: Init, OpenDB and the durable settings in
//                      (OpenOptions: synchronous = EXTRA and a 5 s busy
//                      timeout by default), a quiet close out (also when
//                      the owner goes out of scope).
//   FieldType<N>       a type description of N bytes that the compiler knows.
//   RecordType<S>      the description of struct S; IPC_DB_FIELD adds a member
//                      whose offset and width come from the field itself and
//                      does not compile when the width differs from its type
//                      description's, or an integer field is not 4 bytes.
//   IntValue, TextValue<N>, NewTerm
//                      filter term values: an integer in a pointer's bits, a
//                      text laid out like a field of N bytes with its zero
//                      byte always inside the value (a text with a quote is
//                      refused).
//   AddItemChecked, UpdateItemChecked, RmvItemChecked, EncodeText
//                      text from outside the device: the calls refuse a text
//                      that would leave its quotes in the statement; the
//                      encoding stores any text without a quote.
//   ClassifyOpenDb, ClassifyFailure
//                      what state an opened Db is in (wrong key, plain file,
//                      damaged, locked, storage full, I/O error, ...), read
//                      from SQLite's own result code on the connection's
//                      public handle and from the file's first bytes.
//   Salvage            reads every row a damaged file still holds, keyed or
//                      plain, into a new file of the same format and key
//                      and swaps it in (ipc_db_salvage.h, included here).
//
// None of these throws except the constructors of FieldType and RecordType
// (std::bad_alloc, as the Meta they hold). The classifier needs SQLCipher's
// header and library at build time: link the CMake target ipc_db::helpers,
// or add `sqlcipher` to the pkg-config query.
//
// Threads: as the calls they make. A ScopedDb is used as a Db is; classify
// while no other thread uses the same Db.
#ifndef IPC_DB_IPC_DB_HELPERS_H_
#define IPC_DB_IPC_DB_HELPERS_H_

#include <sqlcipher/sqlite3.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <type_traits>

#include "DBConn.h"
#include "DBTypes.h"
#include "Db.h"
#include "DbFilter.h"
#include "Meta.h"
#include "SQLiteDBConn.h"
#include "ipc_db_salvage.h"
#include "zb_log.h"
#include "Table.h"

namespace ipc_db {

// ---------------------------------------------------------------------------
// ScopedDb
// ---------------------------------------------------------------------------

// Owns one Db from Open to Close. A Db dropped without UnInit keeps its
// connection, the SQLite handle and the key's copy for the rest of the
// process; a ScopedDb releases them in its destructor.
// The durability ScopedDb::Open leaves the database in. Figures from the
// power-cut campaign (docs/reliability.md, guide section 11).
enum class Durability : int {
  // Journal DELETE with synchronous = EXTRA: no corrupt file and no
  // committed call lost in any cut. The default.
  kDeleteExtra = 0,
  // Journal WAL (Db::SetJournalAttr) with synchronous = FULL: the same
  // figures and cheaper writes; a -wal and a -shm file live beside the
  // database.
  kWalFull,
  // As the library opens a file: DELETE with synchronous = NORMAL, which
  // lost the last committed call in about one cut in four and left a
  // corrupt file in about one cut in 400.
  kLibrarySettings,
};

enum class DbState : int;

// Where a database's path stands before it is opened: DbState::kNoDirectory
// when `directory` (as given to Open, ending with "/") does not exist,
// kNoFile when it does and `file` does not, kUsable when the file exists
// (whether it reads is ClassifyOpenDb's answer after the open). Tells a
// first boot (kNoFile) from lost storage (kNoDirectory), and explains
// OpenDB's -201 (a directory it could not make).
DbState PathState(const std::string& directory, const std::string& file) noexcept;

namespace detail {
// True when PathState answers kUsable.
bool PathHoldsFile(const std::string& directory, const std::string& file) noexcept;
}  // namespace detail

// What ScopedDb::Open applies after every successful open.
struct OpenOptions {
  Durability durability = Durability::kDeleteExtra;
  // How long a statement waits for a lock another connection or process
  // holds, in milliseconds (sqlite3_busy_timeout); 0 answers SQLITE_BUSY at
  // once (259 of 400 writes of a second process failed that way, none with
  // 5 s).
  int busy_timeout_ms = 5000;
  // When true, Open refuses (-1, nothing called, nothing created) unless
  // the database file exists: for an application that must tell a lost
  // file or an unmounted storage from a first boot. PathState says which.
  bool require_existing_file = false;
};

// Applies `options` to the open database of `db`: the busy timeout (on the
// connection's handle), the journal switch (a library call) and the
// synchronous setting (a statement on the handle, which needs the schema:
// it fails on a file this key does not read). Returns 0, or -1 when `db` is
// not open or a step failed (the library logs its own call's failure; the
// others write no entry). The library's own reopen (a repair, a
// maintenance pause, ClassifyOpenDb's second open) runs its settings again
// (DELETE, NORMAL): apply the options again after one. REQUIRES: no other
// thread uses `db` meanwhile.
long long ApplyOpenOptions(Db& db, const OpenOptions& options) noexcept;

class ScopedDb {
 public:
  static constexpr unsigned int kMaxKeyLength = 64;

  ScopedDb() noexcept = default;
  ~ScopedDb() { Close(); }
  ScopedDb(const ScopedDb&) = delete;
  ScopedDb& operator=(const ScopedDb&) = delete;

  // Db::Init with kind 0 and `key_length` bytes of `key`, then Db::OpenDB,
  // then ApplyOpenOptions(options). A file that does not read with this
  // key (wrong key, no key, damaged first page, locked) stays open without
  // the options, so that ClassifyOpenDb can tell what it is; no write
  // succeeds on it. options_applied() says which; ApplyOptions() applies
  // them again (after the classifier's reopen, a repair or a salvage).
  // `directory` ends with "/" (the file names are appended to it). An empty key (length 0, or a null `key`)
  // means a plain file. The key is copied into a buffer of this call, wiped
  // before it returns; the caller keeps its own.
  // Returns 0 (open). -1 without calling anything when this owner already
  // holds a Db or the key is longer than kMaxKeyLength; otherwise the
  // result of the first of Init and OpenDB that failed, and then nothing is
  // held (a failed OpenDB is followed by UnInit).
  // REQUIRES: `key` holds `key_length` bytes (a key shorter than its length
  // cannot be detected).
  long long Open(const std::string& directory, const std::string& file,
                 const std::string& journal, const char* key,
                 unsigned int key_length,
                 const OpenOptions& options = OpenOptions()) noexcept {
    if (held_ || key_length > kMaxKeyLength) return -1;
    if (options.require_existing_file && !detail::PathHoldsFile(directory, file)) return -1;
    char copy[kMaxKeyLength + 1] = {};
    if (key != nullptr && key_length > 0) std::memcpy(copy, key, key_length);
    const unsigned int length = key == nullptr ? 0 : key_length;
    long long result = db_.Init(0, directory, file, journal, copy, length);
    Wipe(copy, sizeof(copy));
    if (result != 0) {
      db_.UnInit();
      return result;
    }
    result = db_.OpenDB();
    if (result != 0) {
      db_.UnInit();
      return result;
    }
    held_ = true;
    options_ = options;
    ApplyOptions();
    return 0;
  }

  // ApplyOpenOptions with the options of the last Open. Returns its result
  // (-1 when nothing is held).
  long long ApplyOptions() noexcept {
    options_applied_ = held_ && ApplyOpenOptions(db_, options_) == 0;
    return options_applied_ ? 0 : -1;
  }

  // True when the last Open or ApplyOptions applied the options.
  bool options_applied() const noexcept { return held_ && options_applied_; }

  // Closes the database and releases the Db, quietly: it deletes the
  // connection, whose destructor closes a handle that is still open (one
  // info entry). The raw sequence logs errors in a clean run: UnInit closes
  // and the destructor then finds the handle gone ("RECORD: DB Connection
  // has not exist"), and a CloseDB before UnInit adds "CloseConnection
  // failed!error:-202" twice. After the application's own CloseDB through
  // db(), the destructor's one error entry remains. Returns 0; a handle the
  // engine refuses to close is logged by the connection ("sqlite3_close
  // failed:<code>"). Afterwards db().m_pDBConn is null.
  long long Close() noexcept {
    if (!held_) return 0;
    CDBConn* connection = db_.m_pDBConn;
    db_.m_pDBConn = nullptr;
    delete connection;
    held_ = false;
    return 0;
  }

  // True between a successful Open and Close.
  bool held() const noexcept { return held_; }
  // The owned Db, for every other call. Do not call Init or UnInit on it.
  Db& db() noexcept { return db_; }
  Db* operator->() noexcept { return &db_; }

 private:
  static void Wipe(char* buffer, std::size_t size) noexcept {
    volatile char* bytes = buffer;
    for (std::size_t i = 0; i < size; ++i) bytes[i] = 0;
  }

  Db db_;
  bool held_ = false;
  OpenOptions options_;
  bool options_applied_ = false;
};

// ---------------------------------------------------------------------------
// Descriptions checked by the compiler
// ---------------------------------------------------------------------------

// A scalar type description of kWidth bytes: the Meta a member of that width
// refers to. Must outlive every description, Table and filter using it.
template <unsigned int kWidth>
class FieldType {
 public:
  static_assert(kWidth > 0, "a field has at least one byte");
  static constexpr unsigned int kFieldWidth = kWidth;

  // A Meta named `name` of kWidth bytes. Throws std::bad_alloc as Meta does.
  explicit FieldType(const char* name) { meta_.Init(name, kWidth); }
  FieldType(const FieldType&) = delete;
  FieldType& operator=(const FieldType&) = delete;

  // The description that members refer to; owned by this object.
  Meta* meta() noexcept { return &meta_; }

 private:
  Meta meta_;
};

// The description of struct Record: table name, record stride
// sizeof(Record), and the members added with IPC_DB_FIELD, in order.
template <typename Record>
class RecordType {
 public:
  using RecordStruct = Record;

  // A Meta named `table` of sizeof(Record) bytes, with no members yet.
  // Throws std::bad_alloc as Meta does.
  explicit RecordType(const char* table) { meta_.Init(table, sizeof(Record)); }
  RecordType(const RecordType&) = delete;
  RecordType& operator=(const RecordType&) = delete;

  // The description to give createTable, Table and the reads; owned by
  // this object (with its members), which must outlive every use.
  Meta* meta() noexcept { return &meta_; }

  // Use through IPC_DB_FIELD, which takes Field, kFieldSize, kTypeLetter and
  // `offset` from the field itself. Appends a Member and returns it (owned
  // by the description), or null when Meta::AddMember refused it (a member
  // of that name exists, logged by the library) or memory ran out.
  template <typename Field, std::size_t kFieldSize, char kTypeLetter,
            unsigned int kWidth>
  Member* AddField(const char* name, std::size_t offset,
                   FieldType<kWidth>& type) noexcept {
    static_assert(std::is_same<Field, Record>::value,
                  "the field belongs to another struct than this description's");
    static_assert(kFieldSize == kWidth,
                  "the field's width differs from its type description's width");
    static_assert(kTypeLetter != 'i' || kFieldSize == 4,
                  "an integer member (name starting with 'i') must be 4 bytes wide");
    Member* member = nullptr;
    try {
      member = new Member(name, static_cast<unsigned int>(offset), type.meta());
    } catch (const std::bad_alloc&) {
      return nullptr;
    }
    if (meta_.AddMember(member) != 1) {
      delete member;
      return nullptr;
    }
    return member;
  }

 private:
  Meta meta_;
};

}  // namespace ipc_db

// Adds the member `name` (a string literal: its first letter is checked) for
// `Struct::field` to the RecordType<Struct> `record`, with the FieldType
// `type`. The offset and the width are the field's own. Evaluates to the new
// Member* or null (see RecordType::AddField).
// The whole expansion is parenthesised, so it can stand inside another
// macro's argument.
#define IPC_DB_FIELD(record, Struct, field, name, type)                          \
  ((record).template AddField<Struct, sizeof(Struct::field), (name)[0]>(         \
      (name), offsetof(Struct, field), (type)))

namespace ipc_db {

// ---------------------------------------------------------------------------
// Filter term values
// ---------------------------------------------------------------------------

// The value of a term on an INTEGER member: the number travels in the bits
// of the pointer argument.
inline void* IntValue(std::int32_t value) noexcept {
  return reinterpret_cast<void*>(static_cast<std::intptr_t>(value));
}

// A text value for a term on a member of kWidth bytes (CHAR, TEXT, datetime
// or BLOB), laid out like the field with one byte more: the library reads a
// text value up to one byte past the field's width, and that byte is inside
// this object and always zero.
template <unsigned int kWidth>
class TextValue {
 public:
  static constexpr unsigned int kFieldWidth = kWidth;

  // Copies at most kWidth characters of `text` (null: the empty text).
  explicit TextValue(const char* text) noexcept {
    std::memset(bytes_, 0, sizeof(bytes_));
    for (unsigned int i = 0; text != nullptr && i < kWidth && text[i] != '\0'; ++i) {
      bytes_[i] = text[i];
    }
  }

  // The value pointer for a DbFilter; valid while this object lives.
  void* get() noexcept { return bytes_; }
  // The text held, zero-terminated.
  const char* c_str() const noexcept { return bytes_; }

 private:
  char bytes_[kWidth + 1];
};

// A new term comparing `member` with an integer (ownership goes to the
// DbFilters it is added to). Null when `member` is null, has no type
// description, is not 4 bytes wide, or memory ran out.
inline DbFilter* NewTerm(Member* member, DbFilterOperator op,
                         std::int32_t value) noexcept {
  if (member == nullptr || member->type_meta == nullptr ||
      member->type_meta->type_size != 4) {
    return nullptr;
  }
  return new (std::nothrow) DbFilter(member, op, IntValue(value), nullptr);
}

namespace detail {

// Module number of the library's log entries, which the companion's share.
constexpr unsigned int kCompanionLogModule = 4;

// True when the text the library reads from `bytes` (up to the first zero,
// at most `width` + 1 bytes) holds a single quote: in the statement the
// text sits between quotes, unescaped, and such a quote would end it.
inline bool TextLeavesItsQuotes(const char* bytes, unsigned int width) noexcept {
  for (unsigned int i = 0; i <= width && bytes[i] != '\0'; ++i) {
    if (bytes[i] == '\'') return true;
  }
  return false;
}

// The error entry of a refused text, naming the field.
inline void LogRefusedText(const char* call, const std::string& member,
                           unsigned long long record) noexcept {
  ZB_WriteLog(kCompanionLogModule, 3, Log_GetLogDebugEnable(), 0, "ipc_db_helpers.h", __LINE__,
              "%s: text of %s (record %llu) holds a quote; refused, nothing run\n", call,
              member.c_str(), record);
}

}  // namespace detail

// A new term comparing `member` with `value`, which must outlive the term.
// Null when `member` is null, has no type description, its width is not
// kWidth, memory ran out, or `value` holds a single quote (text from
// outside the device: the quote would end the value in the statement; one
// error entry names the member). EncodeText stores such text safely.
template <unsigned int kWidth>
DbFilter* NewTerm(Member* member, DbFilterOperator op,
                  TextValue<kWidth>& value) noexcept {
  if (member == nullptr || member->type_meta == nullptr ||
      member->type_meta->type_size != kWidth) {
    return nullptr;
  }
  if (detail::TextLeavesItsQuotes(value.c_str(), kWidth)) {
    detail::LogRefusedText("NewTerm", member->name, 0);
    return nullptr;
  }
  return new (std::nothrow) DbFilter(member, op, value.get(), nullptr);
}

// ---------------------------------------------------------------------------
// What state is an opened Db in?
// ---------------------------------------------------------------------------

enum class DbState : int {
  kUsable = 0,            // reads work and the file passed quick_check
  kUsableAfterReopen,     // the first reads failed, a second open reads all:
                          // a power cut had torn a keyed file's first page
  kNotOpen,               // no connection, closed, or paused for maintenance
  kWrongKey,              // a keyed file that this key does not open
  kKeyOnPlainFile,        // a key was given and the file is not encrypted
  kNoKeyOnEncryptedFile,  // no key, and the file is encrypted (or not a database)
  kDamaged,               // SQLITE_CORRUPT, or quick_check found damage
  kLocked,                // another connection holds a lock (SQLITE_BUSY/LOCKED)
  kStorageFull,           // SQLITE_FULL: no space left for the file or its journal
  kIoError,               // SQLITE_IOERR_*: the storage failed a read or a write
  kOutOfMemory,           // SQLITE_NOMEM
  kOther,                 // another SQLite code (in sqlite_code), e.g. a constraint
  kNoFile,                // PathState: the directory is there, the file is not
                          // (a first boot, or a file deleted)
  kNoDirectory,           // PathState: the directory is missing (storage not
                          // mounted or lost); OpenDB makes one missing level
                          // and answers -201 for more
};

// What the classifier found.
struct DbDiagnosis {
  DbState state;
  // The extended SQLite code behind the state (SQLITE_CORRUPT also when
  // quick_check reported damage); 0 when none.
  int sqlite_code;
};

// A short name for logs and reports ("usable", "wrong key", ...).
inline const char* DbStateName(DbState state) noexcept {
  switch (state) {
    case DbState::kUsable: return "usable";
    case DbState::kUsableAfterReopen: return "usable after a reopen";
    case DbState::kNotOpen: return "not open";
    case DbState::kWrongKey: return "wrong key";
    case DbState::kKeyOnPlainFile: return "key on a plain file";
    case DbState::kNoKeyOnEncryptedFile: return "no key on an encrypted file";
    case DbState::kDamaged: return "damaged";
    case DbState::kLocked: return "locked by another connection";
    case DbState::kStorageFull: return "storage full";
    case DbState::kIoError: return "I/O error";
    case DbState::kOutOfMemory: return "out of memory";
    case DbState::kOther: return "other";
    case DbState::kNoFile: return "no database file";
    case DbState::kNoDirectory: return "no data directory";
  }
  return "other";
}

namespace detail {

inline CSqliteDBConn* SqliteConnOf(Db& db) noexcept {
  return dynamic_cast<CSqliteDBConn*>(db.m_pDBConn);
}

inline sqlite3* OpenHandleOf(Db& db) noexcept {
  CSqliteDBConn* conn = SqliteConnOf(db);
  return conn == nullptr ? nullptr : conn->m_pSqliteDB;
}

// The state that a failed statement's extended code stands for; kOther for
// the codes with no state of their own (SQLITE_NOTADB included: the caller
// tells the key cases apart).
inline DbState StateOfCode(int code) noexcept {
  switch (code & 0xff) {
    case SQLITE_CORRUPT: return DbState::kDamaged;
    case SQLITE_BUSY:
    case SQLITE_LOCKED: return DbState::kLocked;
    case SQLITE_FULL: return DbState::kStorageFull;
    case SQLITE_IOERR: return DbState::kIoError;
    case SQLITE_NOMEM: return DbState::kOutOfMemory;
    default: return DbState::kOther;
  }
}

// True when the file starts with the header of an unencrypted database.
inline bool FileIsPlainDatabase(const std::string& path) noexcept {
  static const char kPlainHeader[16] = "SQLite format 3";  // and its zero byte
  char header[16] = {};
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const std::size_t got = std::fread(header, 1, sizeof(header), file);
  std::fclose(file);
  return got == sizeof(header) && std::memcmp(header, kPlainHeader, 16) == 0;
}

// Runs one read of the schema through the library. 0, or the extended code
// the statement left on the handle.
inline int ProbeSchema(Db& db) noexcept {
  DB_EXEC_RESULT result = {0, 0, nullptr};
  const long long rc = db.m_pDBConn->ExecuteSQL(
      "select count(*) from sqlite_master;", &result, DB_EXEC_SQL_SYNC);
  db.m_pDBConn->FreeExecuteResult(&result);
  if (rc == 0) return 0;
  sqlite3* handle = OpenHandleOf(db);
  const int code = handle == nullptr ? SQLITE_ERROR : sqlite3_extended_errcode(handle);
  return code == SQLITE_OK ? SQLITE_ERROR : code;
}

// PRAGMA quick_check through the library: kUsable when it answers "ok".
inline DbDiagnosis QuickCheck(Db& db) noexcept {
  DB_EXEC_RESULT result = {0, 0, nullptr};
  const long long rc =
      db.m_pDBConn->ExecuteSQL("PRAGMA quick_check;", &result, DB_EXEC_SQL_SYNC);
  bool ok = false;
  if (rc == 0 && result.iRowCount >= 1 && result.iColumnCount >= 1 &&
      result.ppszResult != nullptr) {
    const char* first = result.ppszResult[result.iColumnCount];  // row 1, column 1
    ok = result.iRowCount == 1 && first != nullptr && std::strcmp(first, "ok") == 0;
  }
  db.m_pDBConn->FreeExecuteResult(&result);
  if (ok) return {DbState::kUsable, 0};
  if (rc == 0) return {DbState::kDamaged, SQLITE_CORRUPT};
  sqlite3* handle = OpenHandleOf(db);
  const int code = handle == nullptr ? SQLITE_ERROR : sqlite3_extended_errcode(handle);
  const DbState state = StateOfCode(code);
  return {state == DbState::kOther ? DbState::kDamaged : state, code};
}

// The file holds something the key does not read (SQLITE_NOTADB on the
// first read). Tells a plain file, a missing key, a torn first page and a
// wrong key apart; the last two by closing and opening once more.
inline DbDiagnosis ClassifyUnreadable(Db& db, int code) noexcept {
  CSqliteDBConn* conn = SqliteConnOf(db);
  const bool keyed = conn->m_szEncryptKey[0] != 0;
  if (!keyed) return {DbState::kNoKeyOnEncryptedFile, code};
  if (FileIsPlainDatabase(conn->m_strDBFile)) return {DbState::kKeyOnPlainFile, code};
  // A power cut can tear the first page (whose first bytes derive the page
  // key) while a rollback journal lies beside it. The first open derives
  // the key from the torn bytes and rolls the journal back; a second open
  // reads the restored file. Only a second failure means a wrong key.
  if (db.CloseDB() != 0 || db.OpenDB() != 0) return {DbState::kNotOpen, code};
  const int again = ProbeSchema(db);
  if (again == 0) {
    const DbDiagnosis check = QuickCheck(db);
    if (check.state == DbState::kUsable) return {DbState::kUsableAfterReopen, 0};
    return check;
  }
  if ((again & 0xff) == SQLITE_NOTADB) return {DbState::kWrongKey, again};
  const DbState state = StateOfCode(again);
  return {state, again};
}

}  // namespace detail

// Classifies an opened Db by reading it: one read of the schema and then
// PRAGMA quick_check (which reads every page: on a large file it takes a
// while). When the first read fails with SQLITE_NOTADB on a keyed file that
// is not plain, the Db is closed and opened once more (re-apply your
// after-open settings, such as the journal mode, when the result is
// kUsableAfterReopen). The statements run through the library, so its log
// shows them and their failures as usual.
// REQUIRES: no other thread uses `db` meanwhile. kNotOpen when `db` has no
// open connection.
inline DbDiagnosis ClassifyOpenDb(Db& db) noexcept {
  if (detail::OpenHandleOf(db) == nullptr) return {DbState::kNotOpen, 0};
  const int code = detail::ProbeSchema(db);
  if (code == 0) return detail::QuickCheck(db);
  if ((code & 0xff) == SQLITE_NOTADB) return detail::ClassifyUnreadable(db, code);
  const DbState state = detail::StateOfCode(code);
  return {state, code};
}

// Classifies the failure of the call that just returned its failure value,
// from the extended code that call's last statement left on the handle:
// storage full, I/O error, locked, damaged, out of memory; SQLITE_NOTADB
// goes on as ClassifyOpenDb. Any other code is kOther with that code. No
// code (the library refused the call before any statement ran, a caller
// mistake named in the log) is answered by ClassifyOpenDb: kUsable then
// means the file is fine and the call itself was wrong.
// REQUIRES: called right after the failed call, before any other call on
// `db`, and no other thread uses `db` meanwhile.
inline DbDiagnosis ClassifyFailure(Db& db) noexcept {
  sqlite3* handle = detail::OpenHandleOf(db);
  if (handle == nullptr) return {DbState::kNotOpen, 0};
  const int code = sqlite3_extended_errcode(handle);
  if (code == SQLITE_OK || (code & 0xff) == SQLITE_NOTADB) return ClassifyOpenDb(db);
  return {detail::StateOfCode(code), code};
}

// ---------------------------------------------------------------------------
// Open options
// ---------------------------------------------------------------------------

inline long long ApplyOpenOptions(Db& db, const OpenOptions& options) noexcept {
  sqlite3* handle = detail::OpenHandleOf(db);
  if (handle == nullptr) return -1;
  const int timeout = options.busy_timeout_ms < 0 ? 0 : options.busy_timeout_ms;
  if (sqlite3_busy_timeout(handle, timeout) != SQLITE_OK) return -1;
  const char* synchronous = nullptr;
  switch (options.durability) {
    case Durability::kDeleteExtra:
      synchronous = "PRAGMA synchronous = EXTRA;";
      break;
    case Durability::kWalFull:
      if (db.SetJournalAttr(DB_JOURNAL_WAL) != 0) return -1;
      synchronous = "PRAGMA synchronous = FULL;";
      break;
    case Durability::kLibrarySettings:
      break;
  }
  if (synchronous == nullptr) return 0;
  return sqlite3_exec(handle, synchronous, nullptr, nullptr, nullptr) == SQLITE_OK ? 0 : -1;
}

inline DbState PathState(const std::string& directory, const std::string& file) noexcept {
  struct stat info;
  const std::string folder = directory.empty() ? std::string(".") : directory;
  if (::stat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode)) {
    return DbState::kNoDirectory;
  }
  return ::stat((directory + file).c_str(), &info) == 0 ? DbState::kUsable : DbState::kNoFile;
}

inline bool detail::PathHoldsFile(const std::string& directory,
                                  const std::string& file) noexcept {
  return PathState(directory, file) == DbState::kUsable;
}

// ---------------------------------------------------------------------------
// Text from outside the device
// ---------------------------------------------------------------------------
//
// The library writes a text value into its statement between single quotes,
// unescaped: a login or a preset name that arrives from a web page and holds
// a quote ends the value early, and the rest of it becomes SQL (a name filter
// of `x' or '1'='1` removes every row). These calls refuse such text before
// any statement runs, with -1 and one error entry naming the field; and
// EncodeText stores any text without a quote, keeping equality, ordering and
// prefix matches.

namespace detail {

// How the library treats a member's value: its column kind, from sql_type
// exactly as the library decides it (INTEGER, BLOB, anything else text).
inline bool RenderedAsText(const Member& member, bool blobs_bound) noexcept {
  if (member.sql_type == "INTEGER") return false;
  return !(blobs_bound && member.sql_type == "BLOB");
}

inline bool TermTextLeavesItsQuotes(const DbFilter& term) noexcept {
  const unsigned int width = term.member->type_meta->type_size;
  switch (term.op) {
    case DB_FILTER_OP_EQ: case DB_FILTER_OP_NE: case DB_FILTER_OP_LT:
    case DB_FILTER_OP_GT: case DB_FILTER_OP_LE: case DB_FILTER_OP_GE:
    case DB_FILTER_OP_LIKE:
      return term.value1 != nullptr &&
             TextLeavesItsQuotes(static_cast<const char*>(term.value1), width);
    case DB_FILTER_OP_BETWEEN:
      return (term.value1 != nullptr &&
              TextLeavesItsQuotes(static_cast<const char*>(term.value1), width)) ||
             (term.value2 != nullptr &&
              TextLeavesItsQuotes(static_cast<const char*>(term.value2), width));
    case DB_FILTER_OP_IN: {
      const long long count = static_cast<long long>(reinterpret_cast<std::intptr_t>(term.value2));
      const char* elements = static_cast<const char*>(term.value1);
      for (long long i = 0; elements != nullptr && i < count; ++i) {
        if (TextLeavesItsQuotes(elements + i * width, width)) return true;
      }
      return false;
    }
    default:
      return false;
  }
}

}  // namespace detail

// 0 when no text value of `filters` holds a single quote within what the
// library reads of it (comparisons, like, both values of between, every
// element of an in-list; integer members are not texts). Otherwise -1 and
// one error entry naming the first such member. `blobs_bound`: true for
// update_item's lists, which bind a BLOB member's value instead of writing
// it into the statement. Terms the library would refuse (null member or
// type description) are left to it.
inline long long CheckFilterTexts(const DbFilters& filters, bool blobs_bound = false) noexcept {
  for (const DbFilter* term : filters.filters) {
    if (term == nullptr || term->member == nullptr || term->member->type_meta == nullptr) {
      continue;
    }
    // like reads its value as text over any member.
    const bool text = term->op == DB_FILTER_OP_LIKE ||
                      detail::RenderedAsText(*term->member, blobs_bound);
    if (text && detail::TermTextLeavesItsQuotes(*term)) {
      detail::LogRefusedText("CheckFilterTexts", term->member->name, 0);
      return -1;
    }
  }
  return 0;
}

// 0 when no text field of the `count` records at `records`, laid out as
// `meta` describes (stride type_size), holds a single quote within what the
// library reads of it; otherwise -1 and one error entry naming the field
// and the record. BLOB fields are bound, never written into a statement.
// REQUIRES: `records` holds `count` records (as for add_item).
inline long long CheckRecordTexts(const Meta& meta, const void* records,
                                  unsigned long long count) noexcept {
  const char* base = static_cast<const char*>(records);
  for (unsigned long long i = 0; base != nullptr && i < count; ++i) {
    const char* record = base + i * meta.type_size;
    for (const Member* member : meta.members) {
      if (member == nullptr || member->type_meta == nullptr ||
          !detail::RenderedAsText(*member, true)) {
        continue;
      }
      if (detail::TextLeavesItsQuotes(record + member->offset, member->type_meta->type_size)) {
        detail::LogRefusedText("CheckRecordTexts", member->name, i);
        return -1;
      }
    }
  }
  return 0;
}

// Table::add_item after CheckRecordTexts over the table's description: -1
// without any statement when a text field holds a quote.
inline long long AddItemChecked(Table& table, void* records, unsigned long long count,
                                const DbFilters& columns) noexcept {
  if (table.meta_data == nullptr ||
      CheckRecordTexts(*table.meta_data, records, count) != 0) {
    return -1;
  }
  return table.add_item(records, count, columns);
}

// Table::update_item after CheckFilterTexts over both lists: -1 without any
// statement when a text value holds a quote.
inline long long UpdateItemChecked(Table& table, DbFilters& set, DbFilters& where) noexcept {
  if (CheckFilterTexts(set, true) != 0 || CheckFilterTexts(where, true) != 0) return -1;
  return table.update_item(set, where);
}

// Table::rmv_item after CheckFilterTexts over each of the `count` lists.
inline long long RmvItemChecked(Table& table, DbFilters* lists,
                                unsigned long long count) noexcept {
  for (unsigned long long i = 0; lists != nullptr && i < count; ++i) {
    if (CheckFilterTexts(lists[i]) != 0) return -1;
  }
  return table.rmv_item(lists, count);
}

// Writes `text` (up to its zero byte) into the field `field` of `width`
// bytes so that it holds no single quote: '&' becomes "&0" and '\'' "&1";
// every other byte stays. The encoding keeps equality, the order of byte
// comparison (ORDER BY, <, >, between) and prefixes (like 'abc%', with the
// prefix encoded the same way). Returns 0, or -1 when the encoded text
// does not fit in `width` bytes with room for its zero byte (the field is
// then all zero). Decode with DecodeText.
inline int EncodeText(const char* text, char* field, std::size_t width) noexcept {
  if (field == nullptr || width == 0) return -1;
  std::memset(field, 0, width);
  std::size_t at = 0;
  for (const char* c = text; c != nullptr && *c != '\0'; ++c) {
    const bool escaped = *c == '&' || *c == '\'';
    const std::size_t need = escaped ? 2 : 1;
    if (at + need >= width) {
      std::memset(field, 0, width);
      return -1;
    }
    if (escaped) {
      field[at++] = '&';
      field[at++] = *c == '&' ? '0' : '1';
    } else {
      field[at++] = *c;
    }
  }
  return 0;
}

// The text EncodeText wrote into `field` (read up to its zero byte, at most
// `width` bytes). An '&' followed by anything but '0' or '1' is kept as it
// is (a field written without the encoding).
inline std::string DecodeText(const char* field, std::size_t width) {
  std::string text;
  for (std::size_t i = 0; field != nullptr && i < width && field[i] != '\0'; ++i) {
    if (field[i] == '&' && i + 1 < width && (field[i + 1] == '0' || field[i + 1] == '1')) {
      text += field[i + 1] == '0' ? '&' : '\'';
      ++i;
    } else {
      text += field[i];
    }
  }
  return text;
}

}  // namespace ipc_db

#endif  // IPC_DB_IPC_DB_HELPERS_H_
