#pragma once

// An RPM package as librpm sees it: a package file opened and its header read, or the header
// of an installed package lent by the RPM database.

#include "common/rpm/handles.hpp"

#include <rpm/rpmtag.h>
#include <string>

namespace Common::Rpm {

// Reads the RPM configuration once per process; while it cannot be read every call warns and
// tries again.
void ensureRpmConfiguration();

class Reader {
public:
    // Opens the package file; after this the descriptor stands at the start of the payload.
    // Leaves no state behind: without an RPM database, none is created for the keyring.
    // Throws Common::Error: code 3 when the file cannot be opened, 4 when librpm refuses it
    // (including a signature that the keyring cannot verify).
    explicit Reader(const std::string& path);

    // Wraps a header that stays someone else's; valid only while the lender keeps it.
    explicit Reader(Header header);

    // The value of a string tag; throws Common::Error code 4 when absent or not a string.
    std::string stringTag(rpmTagVal tag) const;
    std::string stringTagOr(rpmTagVal tag, const std::string& fallback) const;

    const HeaderHandle& header() const { return headerHandle; }
    // Empty for a reader over a lent header.
    const FdHandle& fd() const { return fdHandle; }

private:
    FdHandle fdHandle;
    HeaderHandle headerHandle;
};

} // namespace Common::Rpm
