#include "common/rpm/reader.hpp"

#include "common/error.hpp"
#include "common/log.hpp"
#include "common/rpm/transaction.hpp"

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <rpm/header.h>
#include <rpm/rpmkeyring.h>
#include <rpm/rpmlib.h>
#include <rpm/rpmmacro.h>
#include <rpm/rpmtd.h>
#include <rpm/rpmts.h>
#include <sqlite3.h>

namespace Common::Rpm {

namespace {

bool rpmConfigurationRead = false;

std::string expanded(char* text) {
    const std::unique_ptr<char, decltype(&std::free)> owner(text, std::free);
    return text ? text : "";
}

// librpm reads its keyring from the RPM database, and creates a database to read it from when
// there is none. Without a database there are no keys to read: an empty keyring gives the same
// verdicts and leaves the system as it was. (A file keyring never touches the database.)
void keepFromCreatingRpmDatabase(rpmts set) {
    if (expanded(rpmExpand("%{?_keyring}", nullptr)) == "fs")
        return;
    const std::filesystem::path database =
        expanded(rpmGenPath(rpmtsRootDir(set), "%{_dbpath}", nullptr));
    std::error_code error;
    if (!std::filesystem::is_empty(database, error) && !error)
        return; // a database is there: its keys count
    const rpmKeyring empty = rpmKeyringNew();
    rpmtsSetKeyring(set, empty);
    rpmKeyringFree(empty);
}

// The erase runs inside the database's own write lock (Transaction::run), so librpm's change
// for each package nests inside one transaction, and SQLite keeps what would undo a nested
// change in a temporary file once it passes 64 KiB: a write for every page changed, tens of
// thousands in a large erase. Those stay in memory, up to a bound. SQLite takes this only
// before its first use; a later call is refused and changes nothing.
void keepNestedUndoInMemory() {
    static constexpr int bound = 8 << 20;
    sqlite3_config(SQLITE_CONFIG_STMTJRNL_SPILL, bound);
}

} // namespace

void ensureRpmConfiguration() {
    if (rpmConfigurationRead)
        return;
    keepNestedUndoInMemory();
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
    keepFromCreatingRpmDatabase(transaction.handle());
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
