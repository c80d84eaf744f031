#pragma once

// A test PKI for package signing, made by make_test_pki.sh (beside this header) with the
// openssl command once per build tree and cached there: two CAs and signing certificates of
// every kind, as <name>.key.pem and <name>.cert.pem.

#include "tests/support/sandbox.hpp"

#include <filesystem>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace TestSupport {

inline constexpr const char* developerUsageOid = "2.25.291234647299006649337646853579173005266.1.1";
inline constexpr const char* clientUsageOid = "2.25.291234647299006649337646853579173005266.1.2";
inline constexpr const char* regularPolicyOid = "2.25.291234647299006649337646853579173005266.2.1";
inline constexpr const char* extendedPolicyOid = "2.25.291234647299006649337646853579173005266.2.2";
inline constexpr const char* systemPolicyOid = "2.25.291234647299006649337646853579173005266.2.3";

// The certificates, by name:
//   ca, ca2                 self-signed CAs (2000 to 2100)
//   developer               developer signing, subgroup regular, under ca
//   developer-extended      developer signing, subgroup extended
//   developer-system        developer signing, subgroup system
//   developer-no-key-id     the key of `developer`, no subject key identifier, no policy
//   developer-expired       developer signing, regular, valid only during 2020
//   developer-rsa           developer signing with an RSA key
//   developer-other-ca      developer signing, regular, under ca2
//   developer-no-signing    developer usage, but its key usage excludes signatures
//   client                  client (source) signing, a UTF-8 subject, no policy
//   server                  TLS server usage only, under ca
class TestPki {
public:
    // The PKI of this build tree, made on first use.
    static const TestPki& shared() {
        static const TestPki pki(std::filesystem::path(TOLVA_BINARY_DIR) / "test-pki-v2");
        return pki;
    }

    std::filesystem::path key(const std::string& name) const { return dir / (name + ".key.pem"); }
    std::filesystem::path certificate(const std::string& name) const {
        return dir / (name + ".cert.pem");
    }

    // UTF-8 subject of `client`, in the RFC 2253 form the library reports.
    static constexpr const char* clientSubject =
        "CN=Läntinen Sovellustalo Oy,O=株式会社サンプル,C=FI";

    std::filesystem::path dir;

private:
    explicit TestPki(std::filesystem::path dir) : dir(std::move(dir)) {
        if (std::filesystem::exists(this->dir / "complete"))
            return;
        const auto script = std::filesystem::path(__FILE__).parent_path() / "make_test_pki.sh";
        const auto made = runProgram({"sh", script.string(), this->dir.string()});
        if (made.status != 0 || !std::filesystem::exists(this->dir / "complete"))
            throw std::runtime_error("test PKI: " + script.string() + " failed: " + made.err);
    }
};

// Runs this build tree's pkgsig with `arguments`.
inline ProcessResult pkgsig(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), std::string(TOLVA_BINARY_DIR) + "/bin/pkgsig");
    return runProgram(arguments);
}

// "pkgsig sign" of `package` in place with the test PKI's `developer` and, when given,
// `client`; `extra` arguments follow.
inline ProcessResult signWithPkgsig(const std::filesystem::path& package,
                                    const std::string& developer, const std::string& client = "",
                                    const std::vector<std::string>& extra = {}) {
    const auto& pki = TestPki::shared();
    std::vector<std::string> arguments{"sign", package};
    arguments.insert(arguments.end(), {"--developer-key", pki.key(developer), "--developer-cert",
                                       pki.certificate(developer)});
    if (!client.empty())
        arguments.insert(arguments.end(), {"--client-key", pki.key(client), "--client-cert",
                                           pki.certificate(client)});
    arguments.insert(arguments.end(), extra.begin(), extra.end());
    return pkgsig(arguments);
}

// Inside a sandbox: makes the test PKI's CA the platform's package authority.
inline void trustTestCa() {
    std::filesystem::create_directories("/etc/keys/packages");
    std::filesystem::copy_file(TestPki::shared().certificate("ca"), "/etc/keys/packages/ca.pem",
                               std::filesystem::copy_options::overwrite_existing);
}

} // namespace TestSupport
