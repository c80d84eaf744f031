#pragma once

// Package versions as librpm reads and orders them.

#include "common/rpm/handles.hpp"

#include <optional>
#include <string>

namespace Common::Rpm {

class Version {
public:
    // "[epoch:]version[-release]"; nothing when librpm refuses the text (it refuses only an
    // empty one).
    static std::optional<Version> parse(const std::string& text);

    // Negative, zero or positive as this version is older than, equal to or newer than
    // `other`, by librpm's ordering.
    int compare(const Version& other) const;

private:
    explicit Version(VersionHandle handle) : handle(std::move(handle)) {}

    VersionHandle handle;
};

} // namespace Common::Rpm
