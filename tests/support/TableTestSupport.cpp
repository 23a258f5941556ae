// The record-operation test helpers and the DbTest fixture.
#include "TableTestSupport.h"

#include <algorithm>
#include <cstring>

namespace ipc_db_test {

ScalarTypes::ScalarTypes() {
  int2.Init("short", 2);
  int4.Init("int", 4);
  int8.Init("long long", 8);
  char8.Init("char8", 8);
  char16.Init("char16", 16);
  char32.Init("char32", 32);
  blob8.Init("blob8", 8);
  blob64.Init("blob64", 64);
}

Person MakePerson(int32_t id, int32_t age, const char* name, const char* note,
                  unsigned char seed) {
  Person person;
  std::memset(&person, 0, sizeof(person));
  person.id = id;
  person.age = age;
  // Texts as long as their field are stored without a terminator.
  std::memcpy(person.name, name, std::min(std::strlen(name), sizeof(person.name)));
  std::memcpy(person.note, note, std::min(std::strlen(note), sizeof(person.note)));
  for (size_t i = 0; i < sizeof(person.data); ++i) {
    person.data[i] = static_cast<unsigned char>(seed + i);
  }
  return person;
}

std::string HexOf(const unsigned char* bytes, size_t size) {
  static const char kDigits[] = "0123456789ABCDEF";
  std::string hex;
  for (size_t i = 0; i < size; ++i) {
    hex.push_back(kDigits[bytes[i] >> 4]);
    hex.push_back(kDigits[bytes[i] & 15]);
  }
  return hex;
}

Rows QueryRows(sqlite3* db, const std::string& sql) {
  Rows rows;
  sqlite3_stmt* stmt = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &stmt, nullptr) != SQLITE_OK) {
    ADD_FAILURE() << "query failed: " << sql << ": " << sqlite3_errmsg(db);
    sqlite3_finalize(stmt);
    return rows;
  }
  while (sqlite3_step(stmt) == SQLITE_ROW) {
    std::vector<std::string> row;
    for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
      const unsigned char* text = sqlite3_column_text(stmt, i);
      row.push_back(text == nullptr ? "<null>" : reinterpret_cast<const char*>(text));
    }
    rows.push_back(row);
  }
  sqlite3_finalize(stmt);
  return rows;
}

void ExecRaw(sqlite3* db, const std::string& sql) {
  char* message = nullptr;
  int code = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message);
  EXPECT_EQ(code, SQLITE_OK) << sql << ": " << (message ? message : "");
  sqlite3_free(message);
}

void DbTest::OpenDb(const std::string& key) {
  std::vector<char> keyBuffer(key.begin(), key.end());
  keyBuffer.push_back('\0');
  ASSERT_EQ(db_.Init(0, dir_.Path(), "test.db", "test.db-journal", keyBuffer.data(),
                     static_cast<unsigned int>(key.size())),
            0);
  ASSERT_EQ(db_.OpenDB(), 0);
}

void DbTest::DescribePerson(Meta* meta, const std::string& name) {
  meta->Init(name, sizeof(Person));
  meta->AddMember(new Member("iId_pa", offsetof(Person, id), &types_.int4));
  meta->AddMember(new Member("iAge", offsetof(Person, age), &types_.int4));
  meta->AddMember(new Member("cName", offsetof(Person, name), &types_.char8));
  meta->AddMember(new Member("tNote", offsetof(Person, note), &types_.char16));
  meta->AddMember(new Member("bData", offsetof(Person, data), &types_.blob8));
}

Table* DbTest::Create(Meta* meta, int analyzeName) {
  tables_.emplace_back(db_.createTable(meta, analyzeName));
  EXPECT_NE(tables_.back(), nullptr) << meta->type_name;
  return tables_.back().get();
}

}  // namespace ipc_db_test
