// The temporary directory of the tests and benchmarks: mkdtemp on creation,
// std::filesystem::remove_all on destruction (a readdir loop left
// directories behind under qemu-arm).
#include "TempDir.h"

#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace ipc_db_test {

TempDir::TempDir() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "ipc_db_test.XXXXXX").string();
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (mkdtemp(buffer.data()) == nullptr) {
    std::fprintf(stderr, "TempDir: mkdtemp failed for %s: %s\n", pattern.c_str(),
                 std::strerror(errno));
    std::abort();
  }
  path_ = std::string(buffer.data()) + "/";
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

}  // namespace ipc_db_test
