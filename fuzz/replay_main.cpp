// Replays fuzzer inputs without libFuzzer, for the host build's ctest: linked
// with one target's harness source into <target>_replay, it calls the
// harness's LLVMFuzzerInitialize once and then feeds every regular file of
// each directory named on the command line, in name order, to
// LLVMFuzzerTestOneInput, as the fuzzer runs a single unit. An input that
// fails ends the process as it would end the fuzzer (an abort, a sanitizer
// report); its name was printed just before. A directory that cannot be
// read or holds no file fails the replay, so that it never passes on nothing.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// The regular files of `dir`, sorted by path; empty when it cannot be read.
std::vector<std::filesystem::path> InputsOf(const std::string& dir) {
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (std::filesystem::directory_iterator it(dir, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error)) files.push_back(it->path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

std::string ReadAll(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s DIR...\n", argv[0]);
    return 2;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  for (int i = 1; i < argc; ++i) {
    const std::vector<std::filesystem::path> files = InputsOf(argv[i]);
    if (files.empty()) {
      std::fprintf(stderr, "no input in %s\n", argv[i]);
      return 1;
    }
    for (const std::filesystem::path& file : files) {
      std::printf("replaying %s\n", file.c_str());
      std::fflush(stdout);
      const std::string bytes = ReadAll(file);
      LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs from %s\n", files.size(), argv[i]);
  }
  return 0;
}
