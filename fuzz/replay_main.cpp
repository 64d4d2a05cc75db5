// Runs fuzz inputs without libFuzzer: each argument is a file or a directory
// of files, each file one input. A saved crash input reproduces with
// `replay_deserialize crash-<hash>`.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i)
        if (std::filesystem::is_directory(argv[i]))
            files.insert(files.end(), std::filesystem::directory_iterator(argv[i]), {});
        else
            files.emplace_back(argv[i]);
    for (const auto& p : files) {
        std::ifstream f(p, std::ios::binary);
        if (!f) {
            std::fprintf(stderr, "cannot read %s\n", p.c_str());
            return 1;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(f)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    }
    std::printf("replayed %zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
