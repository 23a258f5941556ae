// The JSON text and the result files that measuring tests write for the
// reports.
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

#include "TestResults.h"
#include "TestSupport.h"

namespace ipc_db_test {
namespace {

TEST(JsonObject, WritesMembersInOrderWithEscapedText) {
  JsonObject object;
  object.Add("cuts", 12).Add("mode", "WAL \"x\"\n").Add("ok", true).Add("ratio", 1.5);
  object.AddRaw("list", JsonList({"1", "2"}));
  EXPECT_EQ(object.Text(),
            "{\"cuts\":12,\"mode\":\"WAL "
            "\\\"x\\\"\\n\",\"ok\":true,\"ratio\":1.5,\"list\":[1,2]}");
}

TEST(JsonObject, NonFiniteNumbersBecomeNull) {
  JsonObject object;
  object.Add("nan", std::nan(""));
  EXPECT_EQ(object.Text(), "{\"nan\":null}");
}

TEST(WriteResultJson, ReplacesTheFileInTheBuildTree) {
  const std::string group = "selftest";
  ASSERT_TRUE(WriteResultJson(group, "one", "{\"a\":1}"));
  ASSERT_TRUE(WriteResultJson(group, "one", "{\"a\":2}"));
  std::string path = ResultsDir() + "/" + group + "/one.json";
  EXPECT_EQ(ReadFileBytes(path), "{\"a\":2}\n");
  std::filesystem::remove_all(ResultsDir() + "/" + group);
}

}  // namespace
}  // namespace ipc_db_test
