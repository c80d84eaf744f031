#include "core/tolva/mappings.hpp"

#include "common/error.hpp"
#include "common/filesystem.hpp"
#include "common/log.hpp"
#include "core/tolva/list_file.hpp"
#include "core/tolva/path_checks.hpp"

#include <algorithm>
#include <set>
#include <unistd.h>

namespace fs = std::filesystem;
using Common::LogLevel;
using Common::LogLine;

namespace Core::Tolva {

namespace {

[[noreturn]] void fail(std::string&& message) {
    throw Common::Error(Common::ErrorCode::Filesystem, std::move(message));
}

[[noreturn]] void refuseOverride(const fs::path& mappingPath) {
    fail("attempt to override system file with package mapping: " + mappingPath.string());
}

// A relative link target that names a neighbour (libfoo.so -> libfoo.so.1) stays valid when
// the link is copied into the system directory next to the neighbour's own mapping.
bool isPlainRelativeLink(const fs::path& source) {
    if (!fs::is_symlink(fs::symlink_status(source)))
        return false;
    const std::string target = fs::read_symlink(source).native();
    return !target.empty() && target.front() != '.' && target.front() != '/';
}

bool copyLink(const fs::path& source, const fs::path& mappingPath) {
    try {
        fs::create_directories(mappingPath.parent_path());
        fs::copy_symlink(source, mappingPath);
        return true;
    } catch (const std::exception& error) {
        LogLine(LogLevel::Warning)
            << "Coulnd't create copy of symlink during mappings generation: " << source << ": "
            << error;
        Common::logInfo("Trying to copy content of the symlink target");
        return false;
    }
}

// The copy is made and marked under a name of its own, then renamed into place: a run stopped
// half-way never leaves an unmarked copy, which every later run would take for a system file.
void createMarkedCopy(const fs::path& source, const fs::path& mappingPath) {
    const fs::path prepared = Common::hiddenSibling(mappingPath, ".tolva-mapping");
    std::error_code ignored;
    fs::remove(prepared, ignored); // left by a stopped run
    Common::copyFileWithExtendedAttributes(source, prepared);
    try {
        Common::setExtendedAttribute(prepared, mappingMarkerAttribute, source.native());
        fs::rename(prepared, mappingPath);
    } catch (...) {
        try {
            fs::remove(prepared);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Warning)
                << "couldn't remove prepared mapping: " << prepared << ": " << error;
        }
        throw;
    }
}

// Makes room for a mapping: a leftover mapping of this package at `mappingPath` is removed,
// anything else there stops the run. A dangling link is a leftover as well; it goes only when a
// mapping is about to be made in its place.
void clearMappingPath(const fs::path& mappingPath, bool aboutToCreate, const PackageNames& package,
                      const fs::path& packageDirectory) {
    std::error_code error;
    const auto status = fs::symlink_status(mappingPath, error);
    if (!fs::exists(status))
        return; // the common case, known from one look
    const bool link = fs::is_symlink(status);
    const bool somethingThere = !link || fs::exists(fs::status(mappingPath, error));
    if (!somethingThere && !aboutToCreate)
        return;
    if (classifyListedMapping(mappingPath, package, packageDirectory) != ListedMapping::Mapping)
        refuseOverride(mappingPath);
    try {
        fs::remove(mappingPath);
    } catch (const std::exception& error) {
        LogLine(LogLevel::Error) << error;
        fail("couldn't clean up existing mapping: " + mappingPath.string());
    }
}

class MappingRun {
public:
    MappingRun(const fs::path& versionDirectory, const PackageNames& package, bool withLib64,
               ListFlush listFlush)
        : versionDirectory(versionDirectory), package(package), listFlush(listFlush),
          table(mappingTable(package, withLib64)), everyRule(mappingTable(package, true)) {}

    void run() {
        try {
            // The rows beyond the caller's table are the lib64 twins it did not ask for:
            // their places are checked and cleared like the others, but nothing is made there.
            for (std::size_t row = 0; row < everyRule.size(); ++row)
                mapRule(everyRule[row], row < table.size());
            writeListFile(versionDirectory / mappingListName, created,
                          "couldn't open file to create mapping list",
                          "couldn't write lines to mapping list", listFlush);
        } catch (const std::exception& error) {
            if (!causeLogged)
                LogLine(LogLevel::Error) << error;
            rollBack();
            fail("couldn't create mappings");
        }
    }

private:
    void mapRule(const MappingRule& rule, bool create) {
        const fs::path directory = versionDirectory / rule.packageSubdir;
        if (!fs::is_directory(directory))
            return;
        for (const auto& entry : fs::recursive_directory_iterator(directory)) {
            if (entry.is_directory()) // the directory listing's own type, unless a link
                continue;
            const fs::path mappingPath =
                fs::path(rule.systemPrefix) / entry.path().lexically_relative(directory);
            if (create)
                checkPlace(rule, mappingPath);
            // Where nothing is yet, a symbolic link is made without a look first; a place
            // that is taken, or a directory that is missing, goes the way of the others.
            if (create && rule.kind == MappingKind::Symlink &&
                ::symlink(entry.path().c_str(), mappingPath.c_str()) == 0) {
                created.push_back(mappingPath);
                continue;
            }
            clearMappingPath(mappingPath, create, package, versionDirectory.parent_path());
            if (create)
                map(entry.path(), mappingPath, rule.kind);
        }
    }

    // A directory on the way named by the package (its own directory in /usr/share, say, or one
    // of its tree) that is a symbolic link, to /etc perhaps, would take the mapping and all made
    // under it out of its place: it is refused as an override, before anything is made through
    // it. The platform's own directories are its layout, followed as they stand.
    void checkPlace(const MappingRule& rule, const fs::path& mappingPath) {
        const fs::path directory = mappingPath.parent_path();
        if (placesChecked.contains(directory))
            return;
        fs::path at = platformDirectory(rule);
        for (const auto& name : directory.lexically_relative(at)) {
            at /= name;
            std::error_code error;
            const auto status = fs::symlink_status(at, error);
            if (fs::is_symlink(status))
                refuseOverride(mappingPath);
            if (!fs::exists(status))
                break; // made below here by this run
        }
        placesChecked.insert(directory);
    }

    // A row's place up to the first name that comes from the package.
    fs::path platformDirectory(const MappingRule& rule) const {
        fs::path directory;
        for (const auto& name : fs::path(rule.systemPrefix).parent_path()) {
            const std::string& text = name.native();
            if (text == package.id || text == package.orgName || text == package.appName)
                break;
            directory /= name;
        }
        return directory;
    }

    void map(const fs::path& source, const fs::path& mappingPath, MappingKind kind) {
        try {
            createMapping(source, mappingPath, kind);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Error)
                << "couldn't create mapping " << source << " -> " << mappingPath;
            LogLine(LogLevel::Error) << error;
            causeLogged = true;
            throw;
        }
        created.push_back(mappingPath);
    }

    void rollBack() {
        Common::logInfo("cleaning up created mappings");
        for (const auto& mappingPath : created)
            removeCreated(mappingPath);
    }

    static void removeCreated(const fs::path& path) {
        try {
            fs::remove(path);
        } catch (const std::exception& error) {
            LogLine(LogLevel::Warning) << "couldn't clean up created mapping: " << path;
            LogLine(LogLevel::Warning) << error;
        }
    }

    const fs::path versionDirectory;
    const PackageNames package;
    const ListFlush listFlush;
    const std::vector<MappingRule> table;
    const std::vector<MappingRule> everyRule;
    std::vector<fs::path> created;
    std::set<fs::path> placesChecked;
    bool causeLogged = false;
};

} // namespace

std::vector<MappingRule> mappingTable(const PackageNames& package, bool withLib64) {
    using enum MappingKind;
    const std::string& id = package.id;
    std::vector<MappingRule> table{
        {"/usr/bin/", "bin", Symlink},
        {"/usr/lib/connman/plugins-vpn/", "connman/plugin", Copy},
        {"/usr/lib/qt5/qml/", "qt5/qml", Symlink},
        {"/usr/lib/3rdparty/" + id + "/", "3rdparty", Copy},
        {"/usr/share/" + id + "/", "data", Symlink},
        {"/usr/share/applications/", "manifest", Symlink},
        {"/usr/share/icons/hicolor/86x86/apps/", "icons/hicolor/86x86/apps", Symlink},
        {"/usr/share/icons/hicolor/108x108/apps/", "icons/hicolor/108x108/apps", Symlink},
        {"/usr/share/icons/hicolor/128x128/apps/", "icons/hicolor/128x128/apps", Symlink},
        {"/usr/share/icons/hicolor/172x172/apps/", "icons/hicolor/172x172/apps", Symlink},
        {"/usr/share/ventoral-vpn/", "ventoral-vpn", Copy},
        {"/etc/av-launcher/", "av-launcher", Symlink},
        {"/etc/connman/vpn-plugin/", "connman/config", Copy},
        {"/etc/integrityd/config.d/", "integrityd", Symlink},
        {"/etc/kcapi/qca_velmor_pkcs11/", "kcapi/qca_velmor_pkcs11", Symlink},
        {"/usr/libexec/" + id + "/", "libexec", Symlink},
        {"/opt/extension/p11-kit-modules/", "p11-kit-modules", Symlink},
        {"/opt/extension/qca-plugins/", "qca-plugins", Symlink},
        {"/etc/trusted-sources/", "trusted-sources", Symlink},
    };
    if (package.orgName && !package.orgName->empty()) {
        const std::string common = "/usr/share/common/" + *package.orgName + "/";
        table.push_back({common, "vendor-common", Copy});
        if (package.appName && !package.appName->empty())
            table.push_back({common + *package.appName + "/", "common", Symlink});
    }
    if (withLib64) {
        static const std::string lib = "/usr/lib/";
        const std::size_t rows = table.size();
        for (std::size_t row = 0; row < rows; ++row) {
            if (!table[row].systemPrefix.starts_with(lib))
                continue;
            MappingRule twin = table[row];
            twin.systemPrefix.replace(0, lib.size(), "/usr/lib64/");
            table.push_back(std::move(twin));
        }
    }
    return table;
}

std::vector<Common::RemapRule> remapRules(const std::vector<MappingRule>& table) {
    std::vector<Common::RemapRule> rules;
    rules.reserve(table.size());
    for (const auto& rule : table)
        rules.push_back({rule.systemPrefix, rule.packageSubdir});
    return rules;
}

bool isMapping(const fs::path& path) {
    std::error_code error;
    if (fs::is_symlink(fs::symlink_status(path, error)))
        return true;
    if (!fs::is_regular_file(fs::status(path, error)))
        return false;
    try {
        Common::getExtendedAttribute(path, mappingMarkerAttribute);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

namespace {

// No directory between `path` and the root is a symbolic link.
bool hasNoLinkedDirectory(const fs::path& path) {
    std::error_code error;
    return fs::weakly_canonical(path.parent_path(), error) == path.parent_path() && !error;
}

bool isPlainName(const fs::path& target) {
    const std::string& text = target.native();
    return !text.empty() && text.front() != '.' && text.find('/') == std::string::npos;
}

} // namespace

ListedMapping classifyListedMapping(const fs::path& path, const PackageNames& package,
                                    const fs::path& packageDirectory) {
    const auto table = mappingTable(package, true);
    const auto rule = std::find_if(table.begin(), table.end(), [&](const MappingRule& row) {
        return isInside(path, fs::path(row.systemPrefix));
    });
    if (rule == table.end() || !hasNoLinkedDirectory(path))
        return ListedMapping::OutOfPlace;
    std::error_code error;
    const auto status = fs::symlink_status(path, error);
    if (fs::is_symlink(status)) {
        const fs::path target = fs::read_symlink(path, error);
        const bool ours = isInside(target, packageDirectory) ||
                          (rule->kind == MappingKind::Copy && isPlainName(target));
        return ours && !error ? ListedMapping::Mapping : ListedMapping::Overwritten;
    }
    if (!fs::is_regular_file(status))
        return ListedMapping::Overwritten;
    try {
        const fs::path source = Common::getExtendedAttribute(path, mappingMarkerAttribute);
        return isInside(source, packageDirectory) ? ListedMapping::Mapping
                                                  : ListedMapping::Overwritten;
    } catch (const std::exception&) {
        return ListedMapping::Overwritten;
    }
}

bool isGeneratedDirectoryOf(const fs::path& directory, const PackageNames& package) {
    if (!directory.is_absolute() || !hasNoLinkedDirectory(directory))
        return false;
    for (const auto& rule : mappingTable(package, false)) {
        const fs::path system = fs::path(rule.systemPrefix).parent_path();
        const auto name = directory.filename().string();
        if (directory == system)
            return name == package.id || (package.orgName && name == *package.orgName);
        if (isInside(directory, system) && directory.parent_path() == system)
            return true;
    }
    return false;
}

void createMapping(const fs::path& source, const fs::path& mappingPath, MappingKind kind) {
    if (kind == MappingKind::Symlink) {
        fs::create_directories(mappingPath.parent_path());
        fs::create_symlink(source, mappingPath);
        return;
    }
    if (isPlainRelativeLink(source) && copyLink(source, mappingPath))
        return;
    createMarkedCopy(source, mappingPath);
}

void createMappings(const fs::path& versionDirectory, const PackageNames& package, bool withLib64,
                    ListFlush listFlush) {
    MappingRun(versionDirectory, package, withLib64, listFlush).run();
}

} // namespace Core::Tolva
