#include "common/rpm/transaction.hpp"

#include "common/error.hpp"
#include "common/rpm/file_iterator.hpp"

#include <fcntl.h>
#include <rpm/rpmcli.h>
#include <rpm/rpmdb.h>
#include <sys/stat.h>

namespace Common::Rpm {

Transaction::Transaction() {
    ensureRpmConfiguration();
    set = ownTransactionSet(rpmtsCreate());
    rpmtsSetRootDir(set.get(), nullptr);
}

void Transaction::setFlags(rpmtransFlags flags) {
    rpmtsSetFlags(set.get(), rpmtsFlags(set.get()) | flags);
}

void Transaction::setNotifyCallback() {
    static constexpr std::uintptr_t progressStyle = INSTALL_HASH | INSTALL_LABEL;
    rpmtsSetNotifyCallback(set.get(), rpmShowProgress, reinterpret_cast<void*>(progressStyle));
}

void Transaction::addEraseElement(const HeaderHandle& header) {
    if (rpmtsAddEraseElement(set.get(), header.get(), 0) != 0)
        throw Error(ErrorCode::Internal, "couldn't add erase element to the RPM transaction");
}

// librpm writes each element's change of the database as a transaction of its own, and each
// is a flush to the disk. Held open around the run, the database's own write lock makes them
// one: one flush for the whole erase, and a run stopped part-way changes nothing in it.
bool Transaction::run() {
    rpmts raw = set.get();
    rpmdb database = rpmtsOpenDB(raw, O_RDWR | O_CREAT) == 0 ? rpmtsGetRdb(raw) : nullptr;
    if (database && rpmdbCtrl(database, RPMDB_CTRL_LOCK_RW) != 0)
        database = nullptr;
    rpmtsRun(raw, nullptr, 0);
    if (!database)
        return true;
    return rpmtsGetRdb(raw) == database && rpmdbCtrl(database, RPMDB_CTRL_UNLOCK_RW) == 0;
}

std::set<std::string> installedAmong(const std::vector<std::string>& names) {
    std::set<std::string> installed;
    if (names.empty())
        return installed;
    const Transaction transaction; // opening the database costs more than each question
    for (const auto& name : names) {
        const auto iterator = ownMatchIterator(
            rpmtsInitIterator(transaction.handle(), RPMDBI_NAME, name.c_str(), name.size()));
        if (rpmdbNextIterator(iterator.get()) != nullptr)
            installed.insert(name);
    }
    return installed;
}

bool filesInPlace(const std::string& name) {
    const Transaction transaction;
    const auto iterator = ownMatchIterator(
        rpmtsInitIterator(transaction.handle(), RPMDBI_NAME, name.c_str(), name.size()));
    Header header = rpmdbNextIterator(iterator.get());
    if (!header)
        return false;
    bool inPlace = true;
    try {
        FileIterator(Reader(header)).forEach([&](const FileIterator::Entry& entry) {
            struct stat status {};
            inPlace =
                entry.type == EntryType::Directory || ::lstat(entry.path.c_str(), &status) == 0;
            return inPlace ? IterationResult::Continue : IterationResult::Stop;
        });
    } catch (const std::exception&) {
        return false; // a file list that cannot be read tells nothing
    }
    return inPlace;
}

InstalledPackageIterator::InstalledPackageIterator() {
    ensureRpmConfiguration();
    const Transaction transaction;
    iterator =
        ownMatchIterator(rpmtsInitIterator(transaction.handle(), RPMDBI_PACKAGES, nullptr, 0));
}

void InstalledPackageIterator::forEach(
    const std::function<IterationResult(const Reader&)>& callback) {
    while (Header header = rpmdbNextIterator(iterator.get())) {
        if (callback(Reader(header)) != IterationResult::Continue)
            return;
    }
}

} // namespace Common::Rpm
