// Fuzzes package files as pkgsig reads them: the lead and signature header with the
// signature tag, the main header through librpm's headerImport, the file list and the
// payload, and the rewrite with the package's own signatures.

#include "fuzz/fuzz_support.hpp"
#include "platform/package_signatures/file_with_cmses.hpp"
#include "tools/pkgsig/package_file.hpp"

#include <rpm/rpmlog.h>

using PackageSignatures::FileWithCmses;

namespace {

std::vector<PackageSignatures::Cms> signaturesOf(const std::filesystem::path& file) {
    try {
        return FileWithCmses::read(file).cmses();
    } catch (const std::runtime_error&) {
        Fuzz::require(FileWithCmses::fromPath(file) == nullptr,
                      "fromPath is null exactly when read fails");
        return {};
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    rpmSetVerbosity(RPMLOG_EMERG);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto file = Fuzz::writeScratchFile(
        "package.rpm", std::string_view(reinterpret_cast<const char*>(data), size));
    const auto signatures = signaturesOf(file);
    try {
        const Pkgsig::PackageFile package(file);
        package.name();
        package.nevra();
        for (const auto& entry : package.entries())
            Fuzz::require(entry.index < package.entries().size(), "file indexes are in range");
        for (const auto& [index, digest] : package.digestsOfFilesToSign())
            Fuzz::require(package.entries().at(index).needsSignature && digest.size() == 32,
                          "only files that need a signature get a SHA-256 digest");
        if (signatures.empty())
            return 0;
        const auto rewritten = file.parent_path() / "rewritten.rpm";
        package.writeWithSignatures(signatures, rewritten);
        Fuzz::require(signaturesOf(rewritten).size() == signatures.size(),
                      "a rewritten package carries the signatures it was given");
    } catch (const std::runtime_error&) {
    }
    return 0;
}
