// main() of a fuzzer that is built without libFuzzer: runs the inputs in the folders that are
// named.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& file : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream stream(file.path(), std::ios::binary);
      const std::vector<char> bytes(std::istreambuf_iterator<char>(stream), {});
      const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
      LLVMFuzzerTestOneInput(input.data(), input.size());
      ++inputs;
    }
  }
  std::printf("%zu inputs\n", inputs);
  return inputs == 0 ? 1 : 0;
}
