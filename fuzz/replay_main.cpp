// Runs a fuzz target's entry point over every file of the given directories or
// files, so that seed corpora and past findings are replayed in ordinary builds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  int failures = 0;
  int replayed = 0;
  const auto replay = [&](const std::filesystem::path& path) {
    ++replayed;
    std::ifstream in(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in) {
      (void)std::fprintf(stderr, "cannot read %s\n", path.c_str());  // the exit status reports it anyway
      return void(++failures);
    }
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  };
  for (int i = 1; i < argc; ++i) {
    if (!std::filesystem::is_directory(argv[i])) {
      replay(argv[i]);
      continue;
    }
    for (const auto& entry : std::filesystem::recursive_directory_iterator(argv[i])) {
      if (entry.is_regular_file()) replay(entry.path());
    }
  }
  if (replayed == 0) return (void)std::fprintf(stderr, "no inputs to replay\n"), 1;
  std::printf("replayed %d inputs\n", replayed);
  return failures == 0 ? 0 : 1;
}
