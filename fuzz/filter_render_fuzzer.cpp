// libFuzzer target: filter rendering. Builds up to six terms with random
// member names, widths, column types, operators and value bytes (values live
// in buffers of exactly the size the rendering may read, the byte just past
// a text field included), renders each with op2Str and op2StrAnalyze and
// the list with toString, and compares every text with the reference
// rendering of FuzzSupport.h. A difference aborts as a finding.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "FuzzSupport.h"

using ipc_db_fuzz::ExpectSame;
using ipc_db_fuzz::FuzzInput;
using ipc_db_fuzz::FuzzTerm;
using ipc_db_fuzz::ReadTerm;
using ipc_db_fuzz::ReferenceFilterName;
using ipc_db_fuzz::ReferenceTerm;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ipc_db_fuzz::QuietLogs();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const char* const kTypes[] = {"INTEGER",  "TEXT",    "BLOB",
                                       "datetime", "CHAR(8)", "unknown_type"};
  FuzzInput in(data, size);
  const int termCount = in.Byte() % 7;
  std::vector<FuzzTerm> owned(static_cast<size_t>(termCount));
  DbFilters list;
  std::string expectedList;
  for (int i = 0; i < termCount; ++i) {
    FuzzTerm& term = owned[static_cast<size_t>(i)];
    term.type.reset(new Meta);
    term.type->Init("fuzz", in.Byte() % 72);
    term.member.reset(new Member(in.Text(24), 0, term.type.get()));
    term.member->sql_type = kTypes[in.Byte() % 6];
    DbFilter* filter = ReadTerm(in, term.member.get(), &term);
    list.add_filter(filter);

    const std::string plain = filter->op2Str();
    ExpectSame(plain, ReferenceTerm(*filter, term.member->name), "op2Str");
    ExpectSame(filter->op2StrAnalyze(),
               ReferenceTerm(*filter, ReferenceFilterName(term.member->name)),
               "op2StrAnalyze");
    ExpectSame(filter->getFilterName(term.member->name),
               ReferenceFilterName(term.member->name), "getFilterName");
    expectedList += plain + (i == 0 ? " " : " and ");
  }
  ExpectSame(list.toString(), termCount == 0 ? "No Filter\n" : expectedList, "toString");
  return 0;
}
