// Unpacking a package into a package tree: every entry at its placed path, regular files with
// their mode and signatures, links recreated against a link root.

#include "common/error.hpp"
#include "common/log.hpp"
#include "core/tolva/package.hpp"
#include "core/tolva/path_checks.hpp"

#include <algorithm>

namespace fs = std::filesystem;

namespace Core::Tolva {

using Common::Error;
using Common::ErrorCode;
using Common::Rpm::EntryType;
using Common::Rpm::IterationResult;

namespace {

// Runs `step`; any standard exception is written as an error line and replaced by `failure`.
template <typename Step> void extractionStep(const char* failure, Step&& step) {
    try {
        step();
    } catch (const std::exception& error) {
        Common::LogLine(Common::LogLevel::Error) << error;
        throw Error(ErrorCode::Filesystem, failure);
    }
}

// A relative link text is kept as it stands; one that climbs out of the tree would lead
// whatever follows it in the tree (the walks of the mappings) out of the package.
void checkLinkStaysInTree(const fs::path& placed, const fs::path& text, const fs::path& original) {
    const fs::path resolved = (placed.parent_path() / text).lexically_normal();
    if (!resolved.empty() && *resolved.begin() == "..")
        throw Error(ErrorCode::BadPackage, "symlink leaves the package tree: " + original.string() +
                                               " -> " + text.string());
}

// Whether `path` is `directory` or lies below it; both relative to the same tree.
bool isAtOrBelow(const fs::path& path, const fs::path& directory) {
    const auto [inDirectory, inPath] =
        std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
    return inDirectory == directory.end();
}

} // namespace

void TreeEntries::check(const fs::path& placed, EntryType type, const fs::path& original) const {
    if (type != EntryType::Directory && std::next(placed.begin()) == placed.end())
        throw Error(ErrorCode::BadPackage,
                    "package file would stand among the database's own files: " +
                        original.string());
    for (const auto& link : links)
        if (isAtOrBelow(placed, link))
            throw Error(ErrorCode::BadPackage,
                        "package path leads through a link of the package: " + original.string());
}

void TreeEntries::addLink(fs::path placed) {
    links.push_back(std::move(placed));
}

const std::vector<Common::RemapRule>& Package::placementRules() const {
    if (rules.empty())
        rules = remapRules(mappingTable(*this, false));
    return rules;
}

fs::path Package::placedPath(const fs::path& path) const {
    fs::path placed = Common::remapPath(path, placementRules());
    checkPlacedPath(placed, path);
    return placed;
}

void Package::extract(const fs::path& root, const fs::path& linkRoot) const {
    TreeEntries entries;
    Common::Rpm::ExtractFileIterator(path()).forEach([&](const auto& entry) {
        const fs::path placed = placedPath(entry.path);
        entries.check(placed, entry.type, entry.path);
        if (entry.type == EntryType::Symlink)
            entries.addLink(placed);
        switch (entry.type) {
        case EntryType::Directory:
            extractDirectory(root, entry);
            break;
        case EntryType::RegularFile:
            extractRegularFile(root, entry);
            break;
        case EntryType::Symlink:
        case EntryType::Hardlink:
            extractLink(root, linkRoot, entry);
            break;
        }
        return IterationResult::Continue;
    });
}

void Package::extractDirectory(const fs::path& root,
                               const Common::Rpm::FileIterator::Entry& entry) const {
    extractionStep("couldn't extract directory", [&] {
        const fs::path destination = root / placedPath(entry.path);
        fs::create_directories(destination);
        fs::permissions(destination, fs::perms(entry.permissions), fs::perm_options::replace);
    });
}

void Package::extractRegularFile(const fs::path& root,
                                 const Common::Rpm::ExtractFileIterator::Entry& entry) const {
    fs::path destination;
    extractionStep("couldn't extract regular file", [&] {
        destination = root / placedPath(entry.path);
        fs::create_directories(destination.parent_path());
        entry.content->writeTo(destination);
        fs::permissions(destination, fs::perms(entry.permissions), fs::perm_options::replace);
    });
    if (!entry.needsSignature)
        return;
    const auto& cms = developerCms();
    const auto text = [](const PackageSignatures::Bytes& bytes) {
        return std::string(bytes.begin(), bytes.end());
    };
    Common::setExtendedAttribute(destination, "security.ima", text(cms.fileSignature(entry.index)));
    Common::setExtendedAttribute(destination, "user.TA.shdr",
                                 text(cms.trustletSignature(entry.index)));
    Common::setExtendedAttribute(destination, "security.appid", id());
}

void Package::extractLink(const fs::path& root, const fs::path& linkRoot,
                          const Common::Rpm::FileIterator::Entry& entry) const {
    const bool symlink = entry.type == EntryType::Symlink;
    extractionStep(symlink ? "couldn't extract symlink" : "couldn't extract hardlink", [&] {
        const fs::path placed = placedPath(entry.path);
        const fs::path link = root / placed;
        const std::string& text = entry.target.native();
        fs::path target = entry.target;
        if (text.empty() || text.front() == '.')
            target = entry.path.parent_path() / entry.target;
        else if (symlink && target.is_relative())
            checkLinkStaysInTree(placed, target, entry.path);
        // Dots are folded by the path alone: nothing on this system is consulted. A hard
        // link needs its data-carrying file, which this extraction has just written below
        // `root`; a symbolic link points where the tree is going to live.
        if (target.is_absolute())
            target = (symlink ? linkRoot : root) / placedPath(target.lexically_normal());
        fs::create_directories(link.parent_path());
        if (symlink)
            fs::create_symlink(target, link);
        else
            fs::create_hard_link(target, link);
    });
}

} // namespace Core::Tolva
