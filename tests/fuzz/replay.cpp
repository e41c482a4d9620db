// Runs a target over the files of a folder, or a file, for builds without a fuzzer.
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "tests/fuzz/fuzz.h"

namespace fs = std::filesystem;

namespace {

void run(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  fuzz::check(file.is_open() && !bytes.empty(), path.c_str());
  LLVMFuzzerTestOneInput(reinterpret_cast<const u8*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  fuzz::check(argc == 2, "there is one argument");
  if (!fs::is_directory(argv[1])) return run(argv[1]), 0;
  for (const auto& entry : fs::directory_iterator(argv[1])) run(entry.path());
}
