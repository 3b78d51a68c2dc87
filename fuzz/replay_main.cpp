// Replays a fuzzer's files through its entry point, without libFuzzer: the
// ordinary build links each fuzzer with this driver so that every input of
// the starting corpora (and every crash once fixed and added there) runs
// as a regression test. Arguments are files or directories of files.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

int main(int argc, char **argv) {
  namespace fs = std::filesystem;
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i)
    if (!fs::is_directory(argv[i]))
      files.emplace_back(argv[i]);
    else
      for (const fs::directory_entry &entry : fs::recursive_directory_iterator(argv[i]))
        if (!entry.is_directory()) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  for (const fs::path &file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    if (!in.is_open() || in.bad()) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", files.size());
  return files.empty() ? 1 : 0;  // an empty corpus tests nothing
}
