// Runs the fuzz target over every file of a corpus directory, once each, as
// an ordinary test of the suite: the seeds stay valid inputs in every build,
// sanitized or not, also where libFuzzer is not at hand.
#include <dirent.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s corpus-directory\n", argv[0]);
    return 2;
  }
  DIR *directory = opendir(argv[1]);
  if (!directory) {
    std::perror(argv[1]);
    return 2;
  }
  LLVMFuzzerInitialize(&argc, &argv);
  int inputs = 0;
  while (const dirent *entry = readdir(directory)) {
    if (entry->d_name[0] == '.') continue;
    const std::string path = std::string(argv[1]) + "/" + entry->d_name;
    std::ifstream file(path, std::ios::binary);
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(file), {}};
    std::printf("%s: %zu bytes\n", entry->d_name, bytes.size());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++inputs;
  }
  closedir(directory);
  std::printf("%d inputs replayed\n", inputs);
  return inputs > 0 ? 0 : 1;
}
