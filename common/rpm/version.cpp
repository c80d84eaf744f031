#include "common/rpm/version.hpp"

#include <rpm/rpmver.h>

namespace Common::Rpm {

std::optional<Version> Version::parse(const std::string& text) {
    auto handle = ownVersion(rpmverParse(text.c_str()));
    if (!handle)
        return std::nullopt;
    return Version(std::move(handle));
}

int Version::compare(const Version& other) const {
    return rpmverCmp(handle.get(), other.handle.get());
}

} // namespace Common::Rpm
