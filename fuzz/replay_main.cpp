// Replays a fuzzer's files through its entry point, without libFuzzer: the
// ordinary build links each fuzzer with this driver so that every input of
// the starting corpora (and every crash once fixed and added there) runs
// as a regression test. Arguments are files or directories of files.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

void collect(const std::string &path, std::vector<std::string> &files) {
  struct stat st {};
  if (stat(path.c_str(), &st) != 0) return;
  if (!S_ISDIR(st.st_mode)) {
    files.push_back(path);
    return;
  }
  if (DIR *dir = opendir(path.c_str())) {
    while (const dirent *entry = readdir(dir)) {
      const std::string name = entry->d_name;
      if (name != "." && name != "..") collect(path + "/" + name, files);
    }
    closedir(dir);
  }
}

}  // namespace

int main(int argc, char **argv) {
  if (LLVMFuzzerInitialize != nullptr) LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::string> files;
  for (int i = 1; i < argc; ++i) collect(argv[i], files);
  std::sort(files.begin(), files.end());
  if (files.empty()) {
    std::fprintf(stderr, "no input files\n");
    return 1;
  }
  for (const std::string &file : files) {
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof()) {
      std::fprintf(stderr, "cannot read %s\n", file.c_str());
      return 1;
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
  }
  std::printf("%zu inputs replayed\n", files.size());
  return 0;
}
