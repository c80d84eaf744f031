#include "core/tolva/path_checks.hpp"

#include "common/error.hpp"

#include <algorithm>

namespace Core::Tolva {

namespace {

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

// The text with its control characters shown as "?", so that a message stays one line.
std::string printable(std::string text) {
    std::replace_if(text.begin(), text.end(), isControl, '?');
    return text;
}

bool isOrdinaryComponent(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           std::none_of(name.begin(), name.end(), isControl);
}

} // namespace

void checkPathComponent(const std::string& name, const std::string& what) {
    const bool blankAtEnd = !name.empty() && (name.front() == ' ' || name.back() == ' ');
    if (!isOrdinaryComponent(name) || blankAtEnd)
        throw Common::Error(Common::ErrorCode::BadPackage,
                            what + " is not a valid directory name: \"" + printable(name) + "\"");
}

void checkPlacedPath(const std::filesystem::path& placed, const std::filesystem::path& original) {
    const bool contained =
        placed.is_relative() && !placed.empty() &&
        std::all_of(placed.begin(), placed.end(),
                    [](const std::filesystem::path& part) { return isOrdinaryComponent(part); });
    if (!contained)
        throw Common::Error(Common::ErrorCode::BadPackage,
                            "package path leaves the package tree: " + printable(original));
}

bool isInside(const std::filesystem::path& path, const std::filesystem::path& directory) {
    if (!path.is_absolute() || !directory.is_absolute())
        return false;
    auto part = path.begin();
    for (const auto& expected : directory.lexically_normal()) {
        if (expected.empty())
            continue; // a trailing separator
        if (part == path.end() || *part != expected)
            return false;
        ++part;
    }
    if (part == path.end())
        return false;
    return std::all_of(part, path.end(),
                       [](const std::filesystem::path& rest) { return isOrdinaryComponent(rest); });
}

} // namespace Core::Tolva
