// Tests of the schema descriptions: Member construction, Meta member lists
// and ownership, the text forms of Member, Meta and Table, and the
// MetaDataManager registry.
#include "Meta.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "Table.h"
#include "TestSupport.h"
#include "zb_log.h"

using ipc_db_test::ExpectLoggedOnce;
using ipc_db_test::LogCapture;

namespace {

const char kDbLogFile[] = "src_db/src/db";

std::string AddressOf(const void* pointer) {
  std::ostringstream text;
  text << pointer;
  return text.str();
}

// A Meta that counts how often it is destroyed, to see whether a Member's
// type description survives the deletion of the Member.
class CountedMeta : public Meta {
 public:
  explicit CountedMeta(int* destroyed) : destroyed_(destroyed) {}
  ~CountedMeta() { ++*destroyed_; }

 private:
  int* destroyed_;
};

TEST(Member, ConstructorSetsDefaults) {
  Meta intMeta;
  Member member("iId_pa", 12, &intMeta);
  EXPECT_EQ(member.name, "iId_pa");
  EXPECT_EQ(member.offset, 12u);
  EXPECT_EQ(member.type_meta, &intMeta);
  EXPECT_EQ(member.index_name, "NONE");
  EXPECT_EQ(member.sql_type, "unknown_type");
  EXPECT_EQ(member.auto_increment, 0);
  EXPECT_EQ(member.primary_key, 0);
  EXPECT_EQ(member.not_null, 0);
  EXPECT_EQ(member.default_zero, 0);
}

TEST(Member, ConstructorAcceptsAnythingWithoutValidation) {
  Member member("", 0xFFFFFFFFu, nullptr);
  EXPECT_EQ(member.name, "");
  EXPECT_EQ(member.offset, 0xFFFFFFFFu);
  EXPECT_EQ(member.type_meta, nullptr);
}

TEST(Meta, ConstructorAndInit) {
  Meta meta;
  EXPECT_EQ(meta.type_name, "unknown_type");
  EXPECT_EQ(meta.type_size, 0u);
  EXPECT_TRUE(meta.members.empty());
  meta.Init("t_rec", 40);
  EXPECT_EQ(meta.type_name, "t_rec");
  EXPECT_EQ(meta.type_size, 40u);
  meta.Init("t_other", 8);
  EXPECT_EQ(meta.type_name, "t_other");
  EXPECT_EQ(meta.type_size, 8u);
}

TEST(Meta, InitAgainKeepsMembers) {
  Meta intMeta;
  Meta meta;
  meta.Init("t_rec", 4);
  ASSERT_EQ(meta.AddMember(new Member("iA", 0, &intMeta)), 1);
  meta.Init("t_rec2", 8);
  ASSERT_EQ(meta.members.size(), 1u);
  EXPECT_EQ(meta.members[0]->name, "iA");
}

TEST(Meta, AddMemberAppendsInOrder) {
  LogCapture log;
  Meta intMeta;
  Meta meta;
  Member* first = new Member("iA", 0, &intMeta);
  Member* second = new Member("iB", 4, &intMeta);
  EXPECT_EQ(meta.AddMember(first), 1);
  EXPECT_EQ(meta.AddMember(second), 1);
  ASSERT_EQ(meta.members.size(), 2u);
  EXPECT_EQ(meta.members[0], first);
  EXPECT_EQ(meta.members[1], second);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(Meta, AddMemberNullIsRefusedAndLogged) {
  LogCapture log;
  Meta meta;
  EXPECT_EQ(meta.AddMember(nullptr), 0);
  EXPECT_TRUE(meta.members.empty());
  ExpectLoggedOnce(log, 3, kDbLogFile, "member is null\n");
  EXPECT_EQ(log.Entries().size(), 1u);
}

TEST(Meta, NamesDifferingOnlyInLengthAreBothAdded) {
  LogCapture log;
  Meta intMeta;
  Meta meta;
  EXPECT_EQ(meta.AddMember(new Member("iA", 0, &intMeta)), 1);
  EXPECT_EQ(meta.AddMember(new Member("iAB", 4, &intMeta)), 1);
  EXPECT_EQ(meta.members.size(), 2u);
  EXPECT_EQ(log.Count("Add Member failed\n"), 0u);
}

TEST(Meta, LongerNameFirstThenPrefixIsAdded) {
  Meta intMeta;
  Meta meta;
  EXPECT_EQ(meta.AddMember(new Member("iAB", 0, &intMeta)), 1);
  EXPECT_EQ(meta.AddMember(new Member("iA", 4, &intMeta)), 1);
  EXPECT_EQ(meta.members.size(), 2u);
}

TEST(Meta, DuplicateNameIsRefusedAndLeftToCaller) {
  LogCapture log;
  Meta intMeta;
  Meta meta;
  Member* original = new Member("iA", 0, &intMeta);
  ASSERT_EQ(meta.AddMember(original), 1);
  Member duplicate("iA", 8, &intMeta);  // still owned here after refusal
  EXPECT_EQ(meta.AddMember(&duplicate), 0);
  ASSERT_EQ(meta.members.size(), 1u);
  EXPECT_EQ(meta.members[0], original);
  ExpectLoggedOnce(log, 3, kDbLogFile, "Add Member failed\n");
  EXPECT_EQ(duplicate.name, "iA");  // not deleted by the refusal
}

TEST(Meta, NameComparisonIsByteExact) {
  Meta intMeta;
  Meta meta;
  EXPECT_EQ(meta.AddMember(new Member("iA", 0, &intMeta)), 1);
  EXPECT_EQ(meta.AddMember(new Member("ia", 4, &intMeta)), 1);
  EXPECT_EQ(meta.AddMember(new Member(std::string("iA\0x", 4), 8, &intMeta)), 1);
  EXPECT_EQ(meta.members.size(), 3u);
}

TEST(Meta, GetOnEmptyMetaReturnsNull) {
  LogCapture log;
  Meta meta;
  EXPECT_EQ(meta.Get("iA"), nullptr);
  EXPECT_EQ(meta.Get(""), nullptr);
  EXPECT_TRUE(log.Entries().empty());
}

TEST(Meta, GetFindsExactNameOnly) {
  Meta intMeta;
  Meta meta;
  Member* a = new Member("iA", 0, &intMeta);
  Member* ab = new Member("iAB", 4, &intMeta);
  ASSERT_EQ(meta.AddMember(a), 1);
  ASSERT_EQ(meta.AddMember(ab), 1);
  EXPECT_EQ(meta.Get("iA"), a);
  EXPECT_EQ(meta.Get("iAB"), ab);
  EXPECT_EQ(meta.Get("i"), nullptr);
  EXPECT_EQ(meta.Get("iABC"), nullptr);
  EXPECT_EQ(meta.Get("IA"), nullptr);
}

TEST(Meta, DestructorDeletesMembersButNotTheirTypes) {
  int typeDestroyed = 0;
  CountedMeta* typeMeta = new CountedMeta(&typeDestroyed);
  typeMeta->Init("int", 4);
  {
    Meta meta;
    meta.Init("t_rec", 8);
    ASSERT_EQ(meta.AddMember(new Member("iA", 0, typeMeta)), 1);
    ASSERT_EQ(meta.AddMember(new Member("iB", 4, typeMeta)), 1);
  }
  // The type description is still alive and intact after the record Meta
  // (and so its Members) went away.
  EXPECT_EQ(typeDestroyed, 0);
  EXPECT_EQ(typeMeta->type_name, "int");
  EXPECT_EQ(typeMeta->type_size, 4u);
  delete typeMeta;
  EXPECT_EQ(typeDestroyed, 1);
}

TEST(Meta, DestructorDeletesTheMembersItOwns) {
  // A member-typed Meta inside a Member of a record: deleting the record
  // Meta deletes its Members; the nested Meta's own Members are deleted only
  // with the nested Meta. Run under the address sanitizer this also shows
  // there is no double free or leak.
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta* nested = new Meta;
  nested->Init("pos", 8);
  ASSERT_EQ(nested->AddMember(new Member("iX", 0, &intMeta)), 1);
  {
    Meta record;
    record.Init("t_rec", 8);
    ASSERT_EQ(record.AddMember(new Member("bPos", 0, nested)), 1);
  }
  ASSERT_EQ(nested->members.size(), 1u);
  EXPECT_EQ(nested->members[0]->name, "iX");
  delete nested;
}

TEST(MetaToString, WithoutMembersIsOneLineWithoutLineEnd) {
  Meta meta;
  meta.Init("int", 4);
  EXPECT_EQ(meta.toString(""),
            "type_name = int;type_size = 4;addr = " + AddressOf(&meta));
  // The prefix is not written by the Meta itself.
  EXPECT_EQ(meta.toString("    "),
            "type_name = int;type_size = 4;addr = " + AddressOf(&meta));
}

TEST(MetaToString, AddressIsInPointerNotation) {
  Meta meta;
  std::string text = meta.toString("");
  EXPECT_EQ(text.rfind("type_name = unknown_type;type_size = 0;addr = 0x", 0), 0u)
      << text;
}

TEST(MetaToString, MatchesTheRecordExample) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta char32;
  char32.Init("char32", 32);
  Meta record;
  record.Init("t_rec", 40);
  ASSERT_EQ(record.AddMember(new Member("iId_pa", 0, &intMeta)), 1);
  ASSERT_EQ(record.AddMember(new Member("cName", 4, &char32)), 1);
  const std::string expected =
      "type_name = t_rec;type_size = 40;addr = " + AddressOf(&record) + "\n" +
      " name = iId_pa;offset = 0;type_name = int;type_size = 4;addr = " +
      AddressOf(&intMeta) + "\n" +
      " name = cName;offset = 4;type_name = char32;type_size = 32;addr = " +
      AddressOf(&char32);
  EXPECT_EQ(record.toString(""), expected);
}

TEST(MetaToString, NestedTypesIndentOneBlankPerLevel) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta pos;
  pos.Init("pos", 8);
  ASSERT_EQ(pos.AddMember(new Member("iX", 0, &intMeta)), 1);
  ASSERT_EQ(pos.AddMember(new Member("iY", 4, &intMeta)), 1);
  Meta record;
  record.Init("t_rec", 12);
  ASSERT_EQ(record.AddMember(new Member("bPos", 4, &pos)), 1);
  const std::string intText =
      "type_name = int;type_size = 4;addr = " + AddressOf(&intMeta);
  const std::string expected =
      "type_name = t_rec;type_size = 12;addr = " + AddressOf(&record) + "\n" +
      ">"
      " name = bPos;offset = 4;type_name = pos;type_size = 8;addr = " +
      AddressOf(&pos) + "\n" +
      ">"
      "   name = iX;offset = 0;" +
      intText + "\n" +
      ">"
      "   name = iY;offset = 4;" +
      intText;
  EXPECT_EQ(record.toString(">"), expected);
}

TEST(MemberToString, WithoutTypeMetaStopsAfterOffset) {
  Member member("iA", 16, nullptr);
  EXPECT_EQ(member.toString("ab"), "abname = iA;offset = 16;");
}

TEST(MemberToString, WithTypeMetaAppendsTypeOnSameLine) {
  Meta char8;
  char8.Init("char8", 8);
  Member member("cName", 3, &char8);
  EXPECT_EQ(member.toString(" "),
            " name = cName;offset = 3;type_name = char8;type_size = 8;addr = " +
                AddressOf(&char8));
}

TEST(TableToString, IsMetaTextWithLineEnd) {
  Meta intMeta;
  intMeta.Init("int", 4);
  Meta record;
  record.Init("t_rec", 4);
  ASSERT_EQ(record.AddMember(new Member("iA", 0, &intMeta)), 1);
  Table table(nullptr, &record, 1);
  EXPECT_EQ(table.toString("x"), record.toString("x") + "\n");
  EXPECT_EQ(table.toString(""), record.toString("") + "\n");
}

TEST(Table, ConstructorStoresItsThreeValues) {
  Meta record;
  Db* fakeParent = reinterpret_cast<Db*>(&record);  // never dereferenced
  {
    Table table(fakeParent, &record, 7);
    EXPECT_EQ(table.parent, fakeParent);
    EXPECT_EQ(table.meta_data, &record);
    EXPECT_EQ(table.analyze_name, 7);
  }
  // The Table did not free or change its Meta.
  EXPECT_EQ(record.type_name, "unknown_type");
  Table heapTable(nullptr, &record, 0);
  EXPECT_EQ(heapTable.analyze_name, 0);
}

// ---- Registry ----

TEST(MetaDataManager, SingletonIsOneInstance) {
  MetaDataManager* first = MetaDataManager::Singleton();
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(MetaDataManager::Singleton(), first);
}

TEST(MetaDataManager, RegistersAndFindsByName) {
  Meta meta;
  meta.Init("reg_find", 4);
  MetaDataManager* registry = MetaDataManager::Singleton();
  registry->AddMetaData(&meta);
  EXPECT_EQ(registry->GetMetaDataOf("reg_find"), &meta);
  EXPECT_EQ(registry->meta_map.count("reg_find"), 1u);
  registry->meta_map.erase("reg_find");
}

TEST(MetaDataManager, UnknownNameGivesNullWithoutLog) {
  LogCapture log;
  EXPECT_EQ(MetaDataManager::Singleton()->GetMetaDataOf("reg_absent"), nullptr);
  EXPECT_TRUE(log.Entries().empty());
}

TEST(MetaDataManager, SecondRegistrationKeepsTheFirst) {
  LogCapture log;
  Meta first;
  first.Init("reg_twice", 4);
  Meta second;
  second.Init("reg_twice", 8);
  MetaDataManager* registry = MetaDataManager::Singleton();
  registry->AddMetaData(&first);
  registry->AddMetaData(&second);
  EXPECT_EQ(registry->GetMetaDataOf("reg_twice"), &first);
  EXPECT_TRUE(log.Entries().empty()) << log.Dump();
  registry->meta_map.erase("reg_twice");
}

TEST(MetaDataManager, NullIsLoggedAndNothingRegistered) {
  LogCapture log;
  MetaDataManager* registry = MetaDataManager::Singleton();
  const size_t before = registry->meta_map.size();
  registry->AddMetaData(nullptr);
  EXPECT_EQ(registry->meta_map.size(), before);
  ExpectLoggedOnce(log, 3, kDbLogFile, "meta is null\n");
}

TEST(MetaDataManager, KeyIsTheNameAtRegistration) {
  Meta meta;
  meta.Init("reg_old", 4);
  MetaDataManager* registry = MetaDataManager::Singleton();
  registry->AddMetaData(&meta);
  meta.Init("reg_new", 4);
  EXPECT_EQ(registry->GetMetaDataOf("reg_old"), &meta);
  EXPECT_EQ(registry->GetMetaDataOf("reg_new"), nullptr);
  registry->meta_map.erase("reg_old");
}

}  // namespace

namespace {

TEST(SchemaLog, EntriesCarryThePlatformDebugFlag) {
  Log_SetLogDebugEnable(3);
  LogCapture log;
  Meta meta;
  EXPECT_EQ(meta.AddMember(nullptr), 0);
  Log_SetLogDebugEnable(0);
  ASSERT_EQ(log.Entries().size(), 1u);
  EXPECT_EQ(log.Entries()[0].debugFlag, 3u);
  EXPECT_EQ(log.Entries()[0].module, 4u);
}

}  // namespace
