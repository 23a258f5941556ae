// Text from outside the device through the companion header: a seeded
// campaign of hostile texts (quotes, comment markers, semicolons, a zero
// byte inside the field, overlong fields, invalid UTF-8) written as records
// (AddItemChecked), used as a name filter of a removal (NewTerm and
// RmvItemChecked) and as the new value of an update (UpdateItemChecked).
// For every text: a refused call runs no statement and changes no row; an
// accepted call changes exactly the rows it names (a new row, the rows whose
// login equals the text, the one row the update selects) and nothing else.
// Then the encoding: every hostile text stored with EncodeText reads back
// whole through DecodeText, is found by an equality filter on its encoded
// form, and the table ordered by login gives the texts in byte order.
// Seed: IPC_DB_HOSTILE_SEED (printed); texts: 400 (IPC_DB_HOSTILE_TEXTS).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "SqlCapture.h"
#include "TempDir.h"
#include "TestResults.h"
#include "ipc_db.h"
#include "sqlcipher/sqlite3.h"
#include "ipc_db_helpers.h"

namespace {

using ipc_db_test::JsonObject;
using ipc_db_test::LogCapture;
using ipc_db_test::SqlCapture;
using ipc_db_test::TempDir;

struct Account {
  int id;
  char login[16];
  char note[8];
  unsigned char badge[4];
};

// A row as the table holds it, compared whole.
struct Row {
  int id;
  std::string login, note;
  std::string badge;
  bool operator==(const Row& other) const {
    return id == other.id && login == other.login && note == other.note &&
           badge == other.badge;
  }
};

std::string FieldText(const char* field, size_t width) {
  return std::string(field, strnlen(field, width));
}

class UntrustedTextTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_NE(IPC_DB_FIELD(record_, Account, id, "iId_pa", int4_), nullptr);
    ASSERT_NE(IPC_DB_FIELD(record_, Account, login, "cLogin", char16_), nullptr);
    ASSERT_NE(IPC_DB_FIELD(record_, Account, note, "cNote", char8_), nullptr);
    ASSERT_NE(IPC_DB_FIELD(record_, Account, badge, "bBadge", blob4_), nullptr);
    ASSERT_EQ(owner_.Open(dir_.Path(), "accounts.db", "accounts.db-journal", nullptr, 0), 0);
    table_.reset(owner_->createTable(record_.meta(), 1));
    ASSERT_NE(table_, nullptr);
    const char* logins[] = {"alice", "bob", "carol", "dave", "eve", "mallory"};
    for (const char* login : logins) {
      Account account = {0, {}, "n", {1, 2, 3, 4}};
      std::snprintf(account.login, sizeof account.login, "%s", login);
      ASSERT_EQ(ipc_db::AddItemChecked(*table_, &account, 1, DbFilters(0)), 0);
    }
  }

  Member* Field(const char* name) { return record_.meta()->Get(name); }

  // Every row as the file holds it (read with SQLite itself: the library's
  // read leaves a text as long as its field empty).
  std::vector<Row> Rows() {
    sqlite3* handle = ipc_db::detail::OpenHandleOf(owner_.db());
    sqlite3_stmt* statement = nullptr;
    std::vector<Row> rows;
    EXPECT_EQ(sqlite3_prepare_v2(handle,
                                 "SELECT Id, Login, Note, Badge FROM t_account ORDER BY Id;", -1,
                                 &statement, nullptr),
              SQLITE_OK);
    while (statement != nullptr && sqlite3_step(statement) == SQLITE_ROW) {
      Row row;
      row.id = sqlite3_column_int(statement, 0);
      row.login = ColumnBytes(statement, 1);
      row.note = ColumnBytes(statement, 2);
      row.badge = ColumnBytes(statement, 3);
      rows.push_back(row);
    }
    sqlite3_finalize(statement);
    return rows;
  }

  static std::string ColumnBytes(sqlite3_stmt* statement, int column) {
    const void* bytes = sqlite3_column_blob(statement, column);
    const int size = sqlite3_column_bytes(statement, column);
    return bytes == nullptr ? std::string() : std::string(static_cast<const char*>(bytes), size);
  }

  // Statements run on the handle while `call` runs.
  template <typename Call>
  size_t StatementsDuring(Call call) {
    SqlCapture capture(ipc_db::detail::OpenHandleOf(owner_.db()));
    call();
    return capture.Statements().size();
  }

  TempDir dir_;
  ipc_db::FieldType<4> int4_{"int"};
  ipc_db::FieldType<16> char16_{"char16"};
  ipc_db::FieldType<8> char8_{"char8"};
  ipc_db::FieldType<4> blob4_{"blob4"};
  ipc_db::RecordType<Account> record_{"t_account"};
  ipc_db::ScopedDb owner_;
  std::unique_ptr<Table> table_;
};

// A hostile text: fragments an attacker tries, bytes that are not UTF-8,
// a zero byte inside, and lengths past the 16-byte field.
std::string HostileText(std::mt19937& random) {
  static const char* const kFragments[] = {
      "'", "''", "--", "/*", "*/", ";", "' or '1'='1", "x' or '1'='1", "\"", "\\",
      "drop table t_account;", "%", "_", "&", "&0", "&1", "\xff", "\xc0\x80", "\xe2\x82",
      "alice", "bob", " ", "a", "\t"};
  std::string text;
  const int parts = 1 + static_cast<int>(random() % 5);
  for (int i = 0; i < parts; ++i) {
    switch (random() % 8) {
      case 0:
        text += static_cast<char>(1 + random() % 255);  // any byte but zero
        break;
      case 1:
        text += std::string(1, '\0') + "tail";  // a zero byte inside the field
        break;
      default:
        text += kFragments[random() % (sizeof kFragments / sizeof kFragments[0])];
    }
  }
  if (random() % 6 == 0) text += std::string(16, 'z');  // overlong
  return text;
}

// The 16-byte field as an application fills it from a network text: as
// many bytes as fit, no zero byte when the text is 16 bytes or longer.
void FillLogin(Account* account, const std::string& text) {
  std::memset(account->login, 0, sizeof account->login);
  std::memcpy(account->login, text.data(), std::min(text.size(), sizeof account->login));
}

struct Figures {
  long long texts = 0, refused = 0, accepted = 0, statements_after_refusal = 0;
  long long unnamed_rows_changed = 0;
};

uint32_t CampaignSeed() {
  const char* given = std::getenv("IPC_DB_HOSTILE_SEED");
  const uint32_t seed = given != nullptr && *given != '\0'
                            ? static_cast<uint32_t>(std::strtoul(given, nullptr, 10))
                            : std::random_device()();
  std::printf("hostile text campaign: seed %u (replay with IPC_DB_HOSTILE_SEED=%u)\n", seed,
              seed);
  std::fflush(stdout);
  return seed;
}

int CampaignTexts() {
  const char* given = std::getenv("IPC_DB_HOSTILE_TEXTS");
  return given != nullptr && *given != '\0' ? std::atoi(given) : 400;
}

TEST_F(UntrustedTextTest, NoHostileTextChangesAStatementOrARowNobodyNamed) {
  const uint32_t seed = CampaignSeed();
  std::mt19937 random(seed);
  Figures figures;
  const int texts = CampaignTexts();
  for (int i = 0; i < texts; ++i) {
    const std::string text = HostileText(random);
    SCOPED_TRACE("text " + std::to_string(i) + " of seed " + std::to_string(seed));
    ++figures.texts;

    // As a record.
    Account account = {0, {}, "n", {9, 9, 9, 9}};
    FillLogin(&account, text);
    const bool recordHasQuote =
        ipc_db::detail::TextLeavesItsQuotes(account.login, sizeof account.login);
    std::vector<Row> before = Rows();
    long long rc = 0;
    size_t statements = StatementsDuring(
        [&] { rc = ipc_db::AddItemChecked(*table_, &account, 1, DbFilters(0)); });
    std::vector<Row> after = Rows();
    if (recordHasQuote) {
      ++figures.refused;
      figures.statements_after_refusal += static_cast<long long>(statements);
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(statements, 0u);
      EXPECT_TRUE(after == before) << "a refused insert changed the table";
    } else {
      ++figures.accepted;
      EXPECT_EQ(rc, 0);
      ASSERT_EQ(after.size(), before.size() + 1);
      const bool sameOldRows = std::equal(before.begin(), before.end(), after.begin());
      if (!sameOldRows) ++figures.unnamed_rows_changed;
      EXPECT_TRUE(sameOldRows) << "an insert changed an existing row";
      // The login as the library reads it: up to the zero byte, or all 16
      // bytes and the byte after the field (the note's first, 'n').
      const std::string stored = strnlen(account.login, 16) < 16
                                     ? FieldText(account.login, 16)
                                     : std::string(account.login, 16) + "n";
      EXPECT_EQ(after.back().login, stored);
      EXPECT_EQ(after.back().note, "n");
    }

    // As the name filter of a removal.
    ipc_db::TextValue<16> name(text.c_str());
    DbFilter* term = ipc_db::NewTerm(Field("cLogin"), DB_FILTER_OP_EQ, name);
    const bool nameHasQuote = std::strchr(name.c_str(), '\'') != nullptr;
    EXPECT_EQ(term == nullptr, nameHasQuote);
    if (term != nullptr) {
      DbFilters list(1, term);
      before = Rows();
      EXPECT_EQ(ipc_db::RmvItemChecked(*table_, &list, 1), 0);
      std::vector<Row> expected;
      for (const Row& row : before) {
        if (row.login != name.c_str()) expected.push_back(row);
      }
      after = Rows();
      if (!(after == expected)) ++figures.unnamed_rows_changed;
      EXPECT_TRUE(after == expected) << "the removal changed a row it did not name";
    }

    // As the new value of an update of one row.
    before = Rows();
    ipc_db::TextValue<8> note(text.c_str());
    const bool noteHasQuote = std::strchr(note.c_str(), '\'') != nullptr;
    DbFilters set(1, new DbFilter(Field("cNote"), DB_FILTER_OP_EQ, note.get(), nullptr));
    DbFilters where(1, new DbFilter(Field("iId_pa"), DB_FILTER_OP_EQ,
                                    ipc_db::IntValue(before.front().id), nullptr));
    statements = StatementsDuring(
        [&] { rc = ipc_db::UpdateItemChecked(*table_, set, where); });
    after = Rows();
    std::vector<Row> expected = before;
    if (noteHasQuote) {
      figures.statements_after_refusal += static_cast<long long>(statements);
      EXPECT_EQ(rc, -1);
      EXPECT_EQ(statements, 0u);
    } else {
      EXPECT_EQ(rc, 0);
      expected.front().note = note.c_str();
    }
    if (!(after == expected)) ++figures.unnamed_rows_changed;
    EXPECT_TRUE(after == expected) << "the update changed a row it did not name";
  }
  EXPECT_GT(figures.refused, 0) << "the campaign never tried a quote";
  EXPECT_GT(figures.accepted, 0);
  JsonObject json;
  json.Add("seed", static_cast<long long>(seed))
      .Add("texts", figures.texts)
      .Add("refused_inserts", figures.refused)
      .Add("accepted_inserts", figures.accepted)
      .Add("statements_run_after_a_refusal", figures.statements_after_refusal)
      .Add("unnamed_rows_changed", figures.unnamed_rows_changed);
  ipc_db_test::WriteResultJson("security", "hostile_text", json.Text());
}

TEST_F(UntrustedTextTest, EncodedTextsReadBackWholeAndKeepEqualityAndOrder) {
  const uint32_t seed = CampaignSeed();
  std::mt19937 random(seed);
  std::vector<std::string> stored;
  for (int i = 0; i < 200; ++i) {
    const std::string raw = HostileText(random);
    const std::string text(raw.c_str());  // an application's text ends at its zero
    Account account = {0, {}, "e", {0, 0, 0, 0}};
    if (ipc_db::EncodeText(text.c_str(), account.login, sizeof account.login) != 0) {
      EXPECT_EQ(account.login[0], '\0') << "a text that does not fit leaves the field zero";
      continue;
    }
    EXPECT_FALSE(ipc_db::detail::TextLeavesItsQuotes(account.login, sizeof account.login));
    ASSERT_EQ(ipc_db::AddItemChecked(*table_, &account, 1, DbFilters(0)), 0) << text;
    stored.push_back(text);

    ipc_db::TextValue<16> encoded(account.login);
    DbFilters byLogin(1, ipc_db::NewTerm(Field("cLogin"), DB_FILTER_OP_EQ, encoded));
    DbFilters all;
    std::vector<Account> found(64);
    unsigned long long count = found.size();
    ASSERT_EQ(table_->get_item(all, byLogin, count, found.data()), 0);
    ASSERT_GE(count, 1u);
    for (unsigned long long k = 0; k < count; ++k) {
      EXPECT_EQ(ipc_db::DecodeText(found[k].login, sizeof found[k].login), text);
    }
  }
  ASSERT_GT(stored.size(), 50u);
  // Every encoded row, ordered by login, decodes to the texts in byte order.
  DbFilters all;
  DbFilters notes(2,
                  new DbFilter(Field("cNote"), DB_FILTER_OP_EQ, const_cast<char*>("e"), nullptr),
                  new DbFilter(Field("cLogin"), DB_FILTER_OP_ORDER_BY, nullptr, nullptr));
  std::vector<Account> rows(stored.size() + 8);
  unsigned long long count = rows.size();
  ASSERT_EQ(table_->get_item(all, notes, count, rows.data()), 0);
  ASSERT_EQ(count, stored.size());
  std::vector<std::string> decoded;
  for (unsigned long long k = 0; k < count; ++k) {
    decoded.push_back(ipc_db::DecodeText(rows[k].login, sizeof rows[k].login));
  }
  std::sort(stored.begin(), stored.end());
  EXPECT_EQ(decoded, stored);
}

TEST_F(UntrustedTextTest, RefusalsNameTheField) {
  Account account = {0, {}, "ok", {0, 0, 0, 0}};
  std::snprintf(account.login, sizeof account.login, "%s", "x' or '1'='1");
  LogCapture log;
  EXPECT_EQ(ipc_db::CheckRecordTexts(*record_.meta(), &account, 1), -1);
  EXPECT_EQ(log.Count("CheckRecordTexts: text of cLogin (record 0) holds a quote; refused, "
                      "nothing run\n"),
            1u)
      << log.Dump();
  EXPECT_EQ(log.CountAtLevel(3), 1u);
  std::snprintf(account.login, sizeof account.login, "%s", "fine");
  std::snprintf(account.note, sizeof account.note, "%s", "a'b");
  EXPECT_EQ(ipc_db::CheckRecordTexts(*record_.meta(), &account, 1), -1);
  EXPECT_TRUE(log.Contains("text of cNote (record 0) holds a quote")) << log.Dump();
  ipc_db::TextValue<16> hostile("x' or '1'='1");
  EXPECT_EQ(ipc_db::NewTerm(Field("cLogin"), DB_FILTER_OP_EQ, hostile), nullptr);
  EXPECT_TRUE(log.Contains("NewTerm: text of cLogin")) << log.Dump();
  // A quote in a BLOB field is bound, never written into a statement.
  std::snprintf(account.note, sizeof account.note, "%s", "ok");
  account.badge[0] = '\'';
  EXPECT_EQ(ipc_db::CheckRecordTexts(*record_.meta(), &account, 1), 0);
  // like reads its value as text over any member, an integer one included.
  char pattern[8] = "1' or";
  DbFilters like(1, new DbFilter(Field("iId_pa"), DB_FILTER_OP_LIKE, pattern, nullptr));
  EXPECT_EQ(ipc_db::CheckFilterTexts(like), -1);
}

}  // namespace
