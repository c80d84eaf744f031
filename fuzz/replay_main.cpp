// Runs a fuzz harness once on every file of the given directories (or on the given files),
// in name order: the corpus replay of the test suite, without libFuzzer.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
// Defined by the harnesses that prepare something once, as libFuzzer calls it.
extern "C" __attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> inputsOf(const fs::path& argument) {
    if (!fs::is_directory(argument))
        return {argument};
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(argument))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize)
        LLVMFuzzerInitialize(&argc, &argv);
    std::size_t replayed = 0;
    for (int i = 1; i < argc; ++i)
        for (const auto& input : inputsOf(argv[i])) {
            // Exactly the input's size, as libFuzzer gives it, so that reading past it is caught.
            const std::size_t size = fs::file_size(input);
            const auto bytes = std::make_unique<std::uint8_t[]>(size);
            std::ifstream file(input, std::ios::binary);
            if (!file.read(reinterpret_cast<char*>(bytes.get()),
                           static_cast<std::streamsize>(size))) {
                std::cerr << "cannot read " << input << "\n";
                return 1;
            }
            std::cout << "replaying " << input.filename().string() << std::endl;
            LLVMFuzzerTestOneInput(bytes.get(), size);
            ++replayed;
        }
    if (replayed == 0) {
        std::cerr << "no input to replay\n";
        return 1;
    }
    std::cout << replayed << " inputs replayed\n";
    return 0;
}
