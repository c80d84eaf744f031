// Fuzzes the reader of symlink.list and generated.dir.list; the sanitizers are the check.

#include "core/tolva/list_file.hpp"
#include "fuzz/fuzz_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::istringstream list(std::string(reinterpret_cast<const char*>(data), size));
    Core::Tolva::readListFile(list);
    return 0;
}
