// Runs a fuzz target's entry point over every file of the given directories or
// files, so that seed corpora and past findings are replayed in ordinary builds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replayFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    (void)std::fprintf(stderr, "cannot read %s\n", path.c_str());  // the exit status reports it anyway
    return 1;
  }
  std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  int failures = 0;
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path root(argv[i]);
    if (std::filesystem::is_directory(root)) {
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file()) {
          failures += replayFile(entry.path());
          ++replayed;
        }
      }
    } else {
      failures += replayFile(root);
      ++replayed;
    }
  }
  if (replayed == 0) {
    (void)std::fprintf(stderr, "no inputs to replay\n");  // the exit status reports it anyway
    return 1;
  }
  std::printf("replayed %d inputs\n", replayed);
  return failures == 0 ? 0 : 1;
}
