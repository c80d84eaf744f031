// Fuzzes the decoder of the per-file signatures attribute: what decodes encodes again and
// decodes to the same list.

#include "fuzz/fuzz_support.hpp"
#include "platform/package_signatures/cms.hpp"

using namespace PackageSignatures;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FileSignatures files;
    try {
        files = decodeFileSignatures(data, size);
    } catch (const std::runtime_error&) {
        return 0;
    }
    const Bytes again = encodeFileSignatures(files);
    Fuzz::require(decodeFileSignatures(again.data(), again.size()) == files,
                  "decoded file signatures encode to the same list");
    return 0;
}
