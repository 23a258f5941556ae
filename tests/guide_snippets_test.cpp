// The application developer's guide (docs/guide.md) shows only code that the
// build compiles: every ```cpp block in it is preceded by a snippet marker
// and equals, byte for byte after removing common indentation, the region of
// that name in examples/guide_snippets.cpp. The program built from that file
// runs every snippet against a real database and must succeed.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

#if defined(IPC_DB_GUIDE_SNIPPETS) && defined(IPC_DB_GUIDE_SNIPPETS_SOURCE) && \
    defined(IPC_DB_GUIDE_MARKDOWN)

namespace {

using ipc_db_test::ReadFileBytes;

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// Removes the indentation common to all non-blank lines; joins with "\n".
std::string Dedent(const std::vector<std::string>& lines) {
  size_t common = std::string::npos;
  for (const std::string& line : lines) {
    size_t first = line.find_first_not_of(' ');
    if (first != std::string::npos) common = std::min(common, first);
  }
  if (common == std::string::npos) common = 0;
  std::string text;
  for (const std::string& line : lines) {
    text += line.size() >= common ? line.substr(common) : std::string();
    text += "\n";
  }
  return text;
}

// name -> text of every "// [guide:name]" ... "// [/guide:name]" region.
std::map<std::string, std::string> SourceRegions(const std::string& source) {
  std::map<std::string, std::string> regions;
  const std::regex open_marker(R"(^\s*// \[guide:([a-z_0-9]+)\]\s*$)");
  std::vector<std::string> lines = Lines(source);
  for (size_t i = 0; i < lines.size(); ++i) {
    std::smatch match;
    if (!std::regex_match(lines[i], match, open_marker)) continue;
    const std::string name = match[1];
    const std::string close_marker = "// [/guide:" + name + "]";
    std::vector<std::string> body;
    size_t j = i + 1;
    while (j < lines.size() && lines[j].find(close_marker) == std::string::npos) {
      body.push_back(lines[j++]);
    }
    EXPECT_LT(j, lines.size()) << "region " << name << " is not closed";
    EXPECT_EQ(regions.count(name), 0u) << "region " << name << " appears twice";
    regions[name] = Dedent(body);
    i = j;
  }
  return regions;
}

struct GuideBlock {
  std::string name;  // empty: no marker before the block
  std::string text;
  size_t line;
};

// Every ```cpp block of the guide, with the snippet name from the line
// "<!-- snippet: name -->" right before its opening fence.
std::vector<GuideBlock> GuideCppBlocks(const std::string& guide) {
  std::vector<GuideBlock> blocks;
  const std::regex marker(R"(^<!-- snippet: ([a-z_0-9]+) -->\s*$)");
  std::vector<std::string> lines = Lines(guide);
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i] != "```cpp") continue;
    GuideBlock block;
    block.line = i + 1;
    std::smatch match;
    if (i > 0 && std::regex_match(lines[i - 1], match, marker)) block.name = match[1];
    std::vector<std::string> body;
    size_t j = i + 1;
    while (j < lines.size() && lines[j] != "```") body.push_back(lines[j++]);
    block.text = Dedent(body);
    blocks.push_back(block);
    i = j;
  }
  return blocks;
}

TEST(GuideSnippetsTest, EveryCppBlockOfTheGuideIsACompiledRegion) {
  const std::string guide = ReadFileBytes(IPC_DB_GUIDE_MARKDOWN);
  const std::string source = ReadFileBytes(IPC_DB_GUIDE_SNIPPETS_SOURCE);
  ASSERT_FALSE(guide.empty());
  ASSERT_FALSE(source.empty());
  std::map<std::string, std::string> regions = SourceRegions(source);
  std::vector<GuideBlock> blocks = GuideCppBlocks(guide);
  ASSERT_GE(blocks.size(), 15u);
  for (const GuideBlock& block : blocks) {
    ASSERT_FALSE(block.name.empty())
        << "the ```cpp block at guide line " << block.line << " has no snippet marker";
    ASSERT_EQ(regions.count(block.name), 1u)
        << "guide line " << block.line << ": no region " << block.name;
    EXPECT_EQ(block.text, regions[block.name])
        << "guide line " << block.line << " differs from region " << block.name;
  }
}

TEST(GuideSnippetsTest, EveryRegionIsShownInTheGuide) {
  const std::string guide = ReadFileBytes(IPC_DB_GUIDE_MARKDOWN);
  std::map<std::string, std::string> regions =
      SourceRegions(ReadFileBytes(IPC_DB_GUIDE_SNIPPETS_SOURCE));
  ASSERT_FALSE(regions.empty());
  for (const auto& region : regions) {
    EXPECT_NE(guide.find("<!-- snippet: " + region.first + " -->\n```cpp\n"),
              std::string::npos)
        << "region " << region.first << " is not shown in the guide";
  }
}

TEST(GuideSnippetsTest, TheSnippetsRunAndGiveWhatTheGuideSays) {
  ipc_db_test::TempDir dir;
  std::string output;
  int status = ipc_db_test::RunCommand(
      std::string("'") + IPC_DB_GUIDE_SNIPPETS + "' '" + dir.Path() + "'", &output);
  EXPECT_EQ(status, 0) << output;
  EXPECT_NE(output.find("all snippets ran: 0 failed"), std::string::npos) << output;
  EXPECT_EQ(output.find("FAIL "), std::string::npos) << output;
}

}  // namespace

#else

TEST(GuideSnippetsTest, NeedsTheExamples) {
  GTEST_SKIP() << "built without the examples (IPC_DB_BUILD_EXAMPLES=OFF)";
}

#endif
