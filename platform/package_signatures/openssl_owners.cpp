#include "platform/package_signatures/openssl_owners.hpp"

#include "platform/package_signatures/oids.hpp"

#include <openssl/err.h>
#include <stdexcept>

namespace PackageSignatures {

std::string takeOpenSslErrors() {
    std::string text;
    const char* data = nullptr;
    int flags = 0;
    while (const unsigned long code = ERR_get_error_all(nullptr, nullptr, nullptr, &data, &flags)) {
        char reason[256];
        ERR_error_string_n(code, reason, sizeof reason);
        if (!text.empty())
            text += "; ";
        text += reason;
        if ((flags & ERR_TXT_STRING) && data && *data)
            text += std::string(" (") + data + ")";
    }
    return text;
}

namespace Oid {

Asn1ObjectPtr object(const char* dotted) {
    Asn1ObjectPtr result(OBJ_txt2obj(dotted, 1));
    if (!result)
        throw std::runtime_error("OpenSSL refuses the object identifier " + std::string(dotted) +
                                 ": " + takeOpenSslErrors());
    return result;
}

} // namespace Oid

} // namespace PackageSignatures
