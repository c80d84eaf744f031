#pragma once

// A test PKI for package signing, made with OpenSSL once per build tree and cached there:
// two CAs and signing certificates of every kind, as <name>.key.pem and <name>.cert.pem.

#include <cstdio>
#include <filesystem>
#include <memory>
#include <openssl/conf.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <stdexcept>
#include <string>
#include <system_error>
#include <unistd.h>
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
        static const TestPki pki(std::filesystem::path(TOLVA_BINARY_DIR) / "test-pki-v1");
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
    struct KeyFree {
        void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
    };
    struct CertFree {
        void operator()(X509* cert) const { X509_free(cert); }
    };
    using Key = std::unique_ptr<EVP_PKEY, KeyFree>;
    using Cert = std::unique_ptr<X509, CertFree>;

    using Fields = std::vector<std::pair<std::string, std::string>>;
    using Extensions = std::vector<std::pair<int, std::string>>;
    struct Spec {
        Spec(std::string name, std::string issuer, Fields subject, Extensions extensions)
            : name(std::move(name)), issuer(std::move(issuer)), subject(std::move(subject)),
              extensions(std::move(extensions)) {}
        std::string name;
        std::string issuer; // empty: self-signed
        Fields subject;
        Extensions extensions;
        const char* notBefore = "20000101000000Z";
        const char* notAfter = "21000101000000Z";
        std::string keyOf; // reuse the key of that certificate
        bool rsa = false;
    };

    explicit TestPki(std::filesystem::path dir) : dir(std::move(dir)) {
        if (!std::filesystem::exists(this->dir / "complete"))
            make();
    }

    static void check(bool ok, const std::string& what) {
        if (!ok)
            throw std::runtime_error("test PKI: cannot " + what);
    }

    static Extensions signer(const char* usage, const char* policy) {
        Extensions extensions = {{NID_subject_key_identifier, "hash"},
                                 {NID_authority_key_identifier, "keyid:always"},
                                 {NID_basic_constraints, "critical,CA:FALSE"},
                                 {NID_key_usage, "critical,digitalSignature"},
                                 {NID_ext_key_usage, usage}};
        if (policy)
            extensions.emplace_back(NID_certificate_policies, policy);
        return extensions;
    }

    static std::vector<Spec> specs() {
        const Extensions caExtensions = {{NID_subject_key_identifier, "hash"},
                                         {NID_basic_constraints, "critical,CA:TRUE"},
                                         {NID_key_usage, "critical,keyCertSign,cRLSign"}};
        auto developer = [](std::string name, std::string cn, const char* policy) {
            return Spec{name,
                        "ca",
                        {{"C", "FI"}, {"O", "Example Apps"}, {"CN", cn}},
                        signer(developerUsageOid, policy)};
        };
        std::vector<Spec> all = {
            {"ca", "", {{"O", "Tolva Test"}, {"CN", "Package CA"}}, caExtensions},
            {"ca2", "", {{"O", "Elsewhere"}, {"CN", "Other Package CA"}}, caExtensions},
            developer("developer", "Regular Developer", regularPolicyOid),
            developer("developer-extended", "Extended Developer", extendedPolicyOid),
            developer("developer-system", "System Developer", systemPolicyOid),
            developer("developer-expired", "Expired Developer", regularPolicyOid),
            developer("developer-rsa", "RSA Developer", regularPolicyOid),
            developer("developer-other-ca", "Foreign Developer", regularPolicyOid),
            developer("developer-no-signing", "Encipher-only Developer", regularPolicyOid),
            {"developer-no-key-id",
             "ca",
             {{"CN", "Keyless Developer"}},
             {{NID_basic_constraints, "critical,CA:FALSE"},
              {NID_ext_key_usage, developerUsageOid}}},
            {"client",
             "ca",
             {{"C", "FI"}, {"O", "株式会社サンプル"}, {"CN", "Läntinen Sovellustalo Oy"}},
             signer(clientUsageOid, nullptr)},
            {"server", "ca", {{"CN", "pkg.example.org"}}, signer("serverAuth", nullptr)},
        };
        for (auto& spec : all) {
            if (spec.name == "developer-expired") {
                spec.notBefore = "20200101000000Z";
                spec.notAfter = "20210101000000Z";
            } else if (spec.name == "developer-rsa") {
                spec.rsa = true;
            } else if (spec.name == "developer-other-ca") {
                spec.issuer = "ca2";
            } else if (spec.name == "developer-no-signing") {
                spec.extensions[3].second = "critical,keyEncipherment";
            } else if (spec.name == "developer-no-key-id") {
                spec.keyOf = "developer";
            }
        }
        return all;
    }

    template <typename T, typename Write>
    static void writePem(const std::filesystem::path& path, T* object, Write write) {
        FILE* file = std::fopen(path.c_str(), "w");
        check(file != nullptr, "create " + path.string());
        const bool ok = write(file, object);
        std::fclose(file);
        check(ok, "write " + path.string());
    }

    template <typename Owner, auto read> static Owner readPem(const std::filesystem::path& path) {
        FILE* file = std::fopen(path.c_str(), "r");
        check(file != nullptr, "open " + path.string());
        Owner object(read(file, nullptr, nullptr, nullptr));
        std::fclose(file);
        check(object != nullptr, "read " + path.string());
        return object;
    }
    static Key readKey(const std::filesystem::path& path) {
        return readPem<Key, PEM_read_PrivateKey>(path);
    }
    static Cert readCert(const std::filesystem::path& path) {
        return readPem<Cert, PEM_read_X509>(path);
    }

    static void makeOne(const std::filesystem::path& into, const Spec& spec, long serial) {
        Key key = !spec.keyOf.empty() ? readKey(into / (spec.keyOf + ".key.pem"))
                  : spec.rsa          ? Key(EVP_RSA_gen(2048))
                                      : Key(EVP_EC_gen("P-256"));
        check(key != nullptr, "make the key of " + spec.name);
        Cert cert(X509_new());
        check(cert && X509_set_version(cert.get(), 2) &&
                  ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), serial) &&
                  ASN1_TIME_set_string(X509_getm_notBefore(cert.get()), spec.notBefore) &&
                  ASN1_TIME_set_string(X509_getm_notAfter(cert.get()), spec.notAfter) &&
                  X509_set_pubkey(cert.get(), key.get()),
              "start the certificate " + spec.name);
        X509_NAME* subject = X509_get_subject_name(cert.get());
        for (const auto& [field, value] : spec.subject)
            check(X509_NAME_add_entry_by_txt(subject, field.c_str(), MBSTRING_UTF8,
                                             reinterpret_cast<const unsigned char*>(value.c_str()),
                                             -1, -1, 0),
                  "name " + spec.name);

        Cert issuer = spec.issuer.empty() ? nullptr : readCert(into / (spec.issuer + ".cert.pem"));
        Key issuerKey = spec.issuer.empty() ? nullptr : readKey(into / (spec.issuer + ".key.pem"));
        X509* issuerCert = issuer ? issuer.get() : cert.get();
        check(X509_set_issuer_name(cert.get(), X509_get_subject_name(issuerCert)),
              "set the issuer of " + spec.name);
        X509V3_CTX context;
        X509V3_set_ctx(&context, issuerCert, cert.get(), nullptr, nullptr, 0);
        // Policies are parsed only with a configuration at hand, even an empty one.
        std::unique_ptr<CONF, decltype(&NCONF_free)> configuration(NCONF_new(nullptr), NCONF_free);
        X509V3_set_nconf(&context, configuration.get());
        for (const auto& [nid, value] : spec.extensions) {
            X509_EXTENSION* extension =
                X509V3_EXT_nconf_nid(configuration.get(), &context, nid, value.c_str());
            check(extension != nullptr, "make the extension " + value + " of " + spec.name);
            const bool added = X509_add_ext(cert.get(), extension, -1);
            X509_EXTENSION_free(extension);
            check(added, "add the extension " + value + " to " + spec.name);
        }
        check(X509_sign(cert.get(), issuerKey ? issuerKey.get() : key.get(), EVP_sha256()) > 0,
              "sign " + spec.name);
        writePem(into / (spec.name + ".key.pem"), key.get(), [](FILE* file, EVP_PKEY* k) {
            return PEM_write_PrivateKey(file, k, nullptr, nullptr, 0, nullptr, nullptr) == 1;
        });
        writePem(into / (spec.name + ".cert.pem"), cert.get(),
                 [](FILE* file, X509* c) { return PEM_write_X509(file, c) == 1; });
    }

    // Made aside and renamed into place, so concurrent test processes share one result.
    void make() const {
        const auto staging = dir.string() + ".tmp." + std::to_string(::getpid());
        std::filesystem::remove_all(staging);
        std::filesystem::create_directories(staging);
        long serial = 1;
        for (const auto& spec : specs())
            makeOne(staging, spec, serial++);
        FILE* stamp = std::fopen((std::filesystem::path(staging) / "complete").c_str(), "w");
        check(stamp != nullptr, "stamp " + staging);
        std::fclose(stamp);
        std::error_code error;
        std::filesystem::rename(staging, dir, error);
        if (error) // another process was first
            std::filesystem::remove_all(staging);
        check(std::filesystem::exists(dir / "complete"), "place " + dir.string());
    }
};

} // namespace TestSupport
