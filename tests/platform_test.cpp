// Tests of the host stand-ins for the device platform: the log sink and the
// bounded memory and string functions with each of their refusals.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>

#include "TestSupport.h"
#include "bounded_mem.h"
#include "zb_log.h"

using ipc_db_test::LogCapture;

TEST(ZbLog, SinkReceivesFormattedEntryOnce) {
  LogCapture log;
  ZB_WriteLog(4, 3, 7, 0, "src_db/src/x", 12, "value %d and %s", 42, "text");
  auto entries = log.Entries();
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_EQ(entries[0].text, "value 42 and text");
  EXPECT_EQ(entries[0].module, 4u);
  EXPECT_EQ(entries[0].level, 3u);
  EXPECT_EQ(entries[0].debugFlag, 7u);
  EXPECT_EQ(entries[0].file, "src_db/src/x");
  EXPECT_EQ(entries[0].line, 12u);
}

TEST(ZbLog, LongEntriesAreNotCut) {
  LogCapture log;
  std::string big(5000, 'x');
  ZB_WriteLog(4, 1, 0, 0, "f", 1, "%s!", big.c_str());
  ASSERT_EQ(log.Entries().size(), 1u);
  EXPECT_EQ(log.Entries()[0].text, big + "!");
}

TEST(ZbLog, DebugEnableRoundTrips) {
  EXPECT_EQ(Log_GetLogDebugEnable(), 0u);
  Log_SetLogDebugEnable(0x1234);
  EXPECT_EQ(Log_GetLogDebugEnable(), 0x1234u);
  Log_SetLogDebugEnable(0);
}

TEST(ZbLog, DefaultSinkPrintsOnlyWarningsAndErrors) {
  ZB_SetLogSink(nullptr, nullptr);
  testing::internal::CaptureStderr();
  ZB_WriteLog(4, 0, 0, 0, "f", 1, "debug-line");
  ZB_WriteLog(4, 1, 0, 0, "f", 2, "info-line");
  ZB_WriteLog(4, 2, 0, 0, "f", 3, "warn-line");
  ZB_WriteLog(4, 3, 0, 0, "f", 4, "error-line");
  std::string err = testing::internal::GetCapturedStderr();
  EXPECT_EQ(err.find("debug-line"), std::string::npos);
  EXPECT_EQ(err.find("info-line"), std::string::npos);
  EXPECT_NE(err.find("warn-line"), std::string::npos);
  EXPECT_NE(err.find("error-line"), std::string::npos);
}

TEST(MemcpyS, CopiesWhenItFits) {
  char dest[8] = "xxxxxxx";
  EXPECT_EQ(memcpy_s(dest, sizeof(dest), "abc", 3), 0);
  EXPECT_EQ(std::memcmp(dest, "abcxxxx", 8), 0);
}

TEST(MemcpyS, RefusalsClearTheDestination) {
  char dest[8];
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(memcpy_s(dest, sizeof(dest), "0123456789", 9), ERANGE);
  EXPECT_EQ(std::string(dest, 8), std::string(8, '\0'));
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(memcpy_s(dest, sizeof(dest), nullptr, 1), EINVAL);
  EXPECT_EQ(std::string(dest, 8), std::string(8, '\0'));
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(memcpy_s(dest, sizeof(dest), dest + 2, 4), EINVAL);  // overlap
  EXPECT_EQ(std::string(dest, 8), std::string(8, '\0'));
  EXPECT_EQ(memcpy_s(nullptr, 8, "a", 1), EINVAL);
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(memcpy_s(dest, 0, "a", 1), EINVAL);
  EXPECT_EQ(dest[0], 'x');
}

TEST(MemsetS, FillsAndReportsOverflow) {
  char dest[8];
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(memset_s(dest, sizeof(dest), 0, 4), 0);
  EXPECT_EQ(std::string(dest, 8), std::string(4, '\0') + "xxxx");
  EXPECT_EQ(memset_s(dest, sizeof(dest), 'y', 20), ERANGE);
  EXPECT_EQ(std::string(dest, 8), std::string(8, 'y'));
  EXPECT_EQ(memset_s(nullptr, 8, 0, 1), EINVAL);
  EXPECT_EQ(memset_s(dest, 0, 0, 1), EINVAL);
}

TEST(StrncpyS, CopiesUpToTheLimits) {
  char dest[1024];
  std::string text1023(1023, 'a');
  std::string text1024(1024, 'a');
  EXPECT_EQ(strncpy_s(dest, 1024, text1023.c_str(), 1023), 0);
  EXPECT_EQ(std::string(dest), text1023);
  EXPECT_EQ(strncpy_s(dest, 1024, text1024.c_str(), 1023), ERANGE);
  EXPECT_EQ(dest[0], '\0');
}

TEST(StrncpyS, FitsExactlyWhenLengthPlusOneFits) {
  char dest[16];
  EXPECT_EQ(strncpy_s(dest, 6, "hello", 5), 0);
  EXPECT_STREQ(dest, "hello");
  std::memset(dest, 'x', sizeof(dest));
  EXPECT_EQ(strncpy_s(dest, 5, "hello", 5), ERANGE);
  EXPECT_EQ(dest[0], '\0');
  EXPECT_EQ(dest[1], 'x');  // only the first byte is cleared
}

TEST(StrncpyS, RefusesNullAndZero) {
  char dest[4] = "abc";
  EXPECT_EQ(strncpy_s(dest, 4, nullptr, 3), EINVAL);
  EXPECT_EQ(dest[0], '\0');
  EXPECT_EQ(strncpy_s(nullptr, 4, "a", 1), EINVAL);
  dest[0] = 'z';
  EXPECT_EQ(strncpy_s(dest, 0, "a", 1), EINVAL);
  EXPECT_EQ(dest[0], 'z');
}

TEST(SnprintfS, FormatsAndReportsTruncation) {
  char dest[8];
  EXPECT_EQ(snprintf_s(dest, sizeof(dest), 7, "%d-%s", 12, "ab"), 5);
  EXPECT_STREQ(dest, "12-ab");
  EXPECT_EQ(snprintf_s(dest, sizeof(dest), 7, "%s", "0123456789"), -1);
  EXPECT_STREQ(dest, "0123456");
  EXPECT_EQ(snprintf_s(dest, sizeof(dest), 3, "%s", "0123456789"), -1);
  EXPECT_STREQ(dest, "012");
  EXPECT_EQ(snprintf_s(nullptr, 8, 7, "x"), -1);
  EXPECT_EQ(snprintf_s(dest, 0, 7, "x"), -1);
}
