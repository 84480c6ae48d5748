// Runs a fuzz target over the files of a corpus, under any compiler: `replay DIRECTORY-OR-FILE...`.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" [[gnu::weak]] int LLVMFuzzerInitialize(int *argc, char ***argv);

namespace {

void Replay(const std::filesystem::path &path) {
    std::ifstream stream(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
    fprintf(stderr, "%s\n", path.c_str()); // the last line names the input of a crash
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size());
}

} // namespace

int main(int argc, char **argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        LLVMFuzzerInitialize(&argc, &argv);
    }
    size_t count = 0;
    for (int i = 1; i < argc; ++i) {
        if (!std::filesystem::is_directory(argv[i])) {
            Replay(argv[i]);
            ++count;
            continue;
        }
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            Replay(entry.path());
            ++count;
        }
    }
    printf("%zu inputs\n", count);
    return count > 0 ? 0 : 1;
}
