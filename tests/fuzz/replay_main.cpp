// Runs a fuzz target over every file of the directories (or files) named on the command
// line, so that the kept corpus and every crash input found stay regression tests.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {
int run_file(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
    return 1;
}
} // namespace

int main(int argc, char **argv)
{
    int runs = 0;
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path p(argv[i]);
        std::error_code ec;
        if (std::filesystem::is_directory(p, ec)) {
            for (const auto &e : std::filesystem::recursive_directory_iterator(p))
                if (e.is_regular_file())
                    runs += run_file(e.path());
        } else if (std::filesystem::is_regular_file(p, ec)) {
            runs += run_file(p);
        }
    }
    std::printf("replayed %d inputs\n", runs);
    return 0;
}
