// Verifying a package's signatures reads and hashes its signed content once per signature.
// Builds a package of about MIB MiB (one incompressible file, uncompressed payload), signs it
// with a developer and a client signature, then times FileWithCmses::fromPath + verifyCmses
// against one SHA-256 pass over the same bytes, alternating the two, and prints the medians
// and their ratio (about the number of signatures when verification costs what its hashing
// costs).
//
//   bench_verify_signed_package [MIB] [ROUNDS]   (default 50 7)
//
// The package lives in a scratch directory under $TMPDIR (or /tmp), removed at the end; the
// signing PKI is the test PKI of the build tree.

#include "platform/package_signatures/file_with_cmses.hpp"
#include "tests/support/sandbox.hpp"
#include "tests/support/test_pki.hpp"
#include "tools/pkgsig/commands.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <openssl/evp.h>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace {

void check(bool ok, const std::string& what) {
    if (!ok) {
        std::cerr << "bench: " << what << "\n";
        std::exit(1);
    }
}

fs::path buildPackage(const fs::path& scratch, std::size_t mebibytes) {
    const fs::path data = scratch / "blob.bin";
    {
        std::ofstream out(data, std::ios::binary);
        std::mt19937_64 random(42);
        std::vector<std::uint64_t> chunk(1 << 17); // 1 MiB
        for (std::size_t i = 0; i < mebibytes; ++i) {
            for (auto& word : chunk)
                word = random();
            out.write(reinterpret_cast<const char*>(chunk.data()), 1 << 20);
        }
    }
    std::ofstream(scratch / "big.spec") << "Name: big\nVersion: 1\nRelease: 1\nSummary: big\n"
                                           "License: MIT\nBuildArch: noarch\n%description\nbig\n"
                                           "%install\nmkdir -p %{buildroot}/usr/share/big\n"
                                           "cp "
                                        << data.string()
                                        << " %{buildroot}/usr/share/big/blob.bin\n"
                                           "%files\n/usr/share/big/blob.bin\n";
    // rpmbuild makes an RPM database under $HOME: keep it in the scratch directory.
    const auto result = TestSupport::runProgram(
        {"env", "HOME=" + scratch.string(), "rpmbuild", "-bb", "--quiet", "--define",
         "_topdir " + (scratch / "top").string(), "--define",
         "_tmppath " + (scratch / "tmp").string(), "--define", "debug_package %{nil}", "--define",
         "_binary_payload w.ufdio", (scratch / "big.spec").string()});
    check(result.exited && result.status == 0, "rpmbuild failed: " + result.err);
    return scratch / "top/RPMS/noarch/big-1-1.noarch.rpm";
}

double sha256Seconds(const fs::path& file, std::uint64_t offset) {
    const auto start = Clock::now();
    std::ifstream in(file, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(offset));
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                    EVP_MD_CTX_free);
    EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
    std::vector<char> chunk(1 << 20);
    while (in) {
        in.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
        EVP_DigestUpdate(context.get(), chunk.data(), static_cast<std::size_t>(in.gcount()));
    }
    unsigned char digest[EVP_MAX_MD_SIZE];
    EVP_DigestFinal_ex(context.get(), digest, nullptr);
    return std::chrono::duration<double>(Clock::now() - start).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    const std::size_t mebibytes = argc > 1 ? std::stoul(argv[1]) : 50;
    const int rounds = argc > 2 ? std::stoi(argv[2]) : 7;
    const char* tmp = std::getenv("TMPDIR");
    const fs::path scratch =
        fs::path(tmp ? tmp : "/tmp") / ("bench-verify-" + std::to_string(::getpid()));
    fs::create_directories(scratch);

    const fs::path package = buildPackage(scratch, mebibytes);
    const auto& pki = TestSupport::TestPki::shared();
    std::ostringstream ignored;
    Pkgsig::sign({package.string(), pki.key("developer"), pki.certificate("developer"),
                  pki.key("client"), pki.certificate("client"), "", "", std::nullopt},
                 ignored);
    const std::string ca = pki.certificate("ca").string();
    const auto probe = PackageSignatures::FileWithCmses::fromPath(package.string());
    check(probe && probe->verifyCmses(ca), "the signed package does not verify");
    const std::uint64_t contentSize = fs::file_size(package) - probe->contentOffset();

    std::vector<double> verifyTimes, hashTimes;
    for (int round = 0; round < rounds; ++round) {
        const auto start = Clock::now();
        const auto file = PackageSignatures::FileWithCmses::fromPath(package.string());
        check(file && file->verifyCmses(ca), "verification failed");
        verifyTimes.push_back(std::chrono::duration<double>(Clock::now() - start).count());
        hashTimes.push_back(sha256Seconds(package, probe->contentOffset()));
    }
    fs::remove_all(scratch);

    const double verify = median(verifyTimes);
    const double hash = median(hashTimes);
    const double mib = static_cast<double>(contentSize) / (1 << 20);
    std::printf("package %.1f MiB signed content, %zu signatures, %d rounds\n", mib,
                probe->cmses().size(), rounds);
    std::printf("fromPath + verifyCmses  %8.1f ms  (%.0f MiB/s of signed content)\n", verify * 1000,
                mib / verify);
    std::printf("one SHA-256 pass        %8.1f ms  (%.0f MiB/s)\n", hash * 1000, mib / hash);
    std::printf("ratio verify / one pass %8.2f\n", verify / hash);
    return 0;
}
