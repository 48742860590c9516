// Runs a fuzz target over files, so that the corpus is a test in every build.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(uint8_t const* bytes, size_t size);

int main(int argc, char** argv) {
    size_t files = 0;
    for (int i = 1; i < argc; ++i) {
        for (auto const& entry : std::filesystem::directory_iterator(argv[i])) {
            std::ifstream file(entry.path(), std::ios::binary);
            std::vector<char> const bytes{std::istreambuf_iterator<char>(file), {}};
            LLVMFuzzerTestOneInput(reinterpret_cast<uint8_t const*>(bytes.data()), bytes.size());
            ++files;
        }
    }
    std::printf("%zu inputs replayed\n", files);
    return files > 0 ? 0 : 1;
}
