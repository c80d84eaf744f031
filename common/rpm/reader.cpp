#include "common/rpm/reader.hpp"

#include "common/error.hpp"
#include "common/log.hpp"
#include "common/rpm/transaction.hpp"

#include <rpm/header.h>
#include <rpm/rpmlib.h>
#include <rpm/rpmtd.h>

namespace Common::Rpm {

namespace {
bool rpmConfigurationRead = false;
} // namespace

void ensureRpmConfiguration() {
    if (rpmConfigurationRead)
        return;
    if (rpmReadConfigFiles(nullptr, nullptr) == 0) {
        rpmConfigurationRead = true;
        return;
    }
    logWarning("cannot read RPM configuration files");
}

Reader::Reader(const std::string& path) {
    ensureRpmConfiguration();
    fdHandle = ownFd(Fopen(path.c_str(), "r.ufdio"));
    if (!fdHandle)
        throw Error(ErrorCode::FileNotFound, "couldn't open rpm package");
    const Transaction transaction;
    Header raw = nullptr;
    if (rpmReadPackageFile(transaction.handle(), fdHandle.get(), path.c_str(), &raw) != RPMRC_OK)
        throw Error(ErrorCode::BadPackage, "couldn't read rpm package");
    headerHandle = ownHeader(raw);
}

Reader::Reader(Header header) : headerHandle(borrowHeader(header)) {
    ensureRpmConfiguration();
}

std::string Reader::stringTag(rpmTagVal tag) const {
    const auto data = ownTagData(rpmtdNew());
    const char* value = nullptr;
    if (headerGet(headerHandle.get(), tag, data.get(), HEADERGET_EXT) != 0)
        value = rpmtdGetString(data.get());
    if (!value)
        throw Error(ErrorCode::BadPackage,
                    "couldn't retrieve rpm tag from package (type=" + std::to_string(tag) + ")");
    return value;
}

std::string Reader::stringTagOr(rpmTagVal tag, const std::string& fallback) const {
    try {
        return stringTag(tag);
    } catch (...) {
        return fallback;
    }
}

} // namespace Common::Rpm
