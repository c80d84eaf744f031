#pragma once

// Access to the RPM database of the running system: a transaction set that erases installed
// packages, and the walk over every installed package.

#include "common/rpm/handles.hpp"
#include "common/rpm/iteration_result.hpp"
#include "common/rpm/reader.hpp"

#include <functional>
#include <rpm/rpmts.h>
#include <set>
#include <string>
#include <vector>

namespace Common::Rpm {

class Transaction {
public:
    // A fresh transaction set on the library's default root directory.
    Transaction();

    // Adds `flags` to the set's transaction flags; flags are never cleared.
    void setFlags(rpmtransFlags flags);
    // librpm's own progress printer: each package's label and hash marks on standard output.
    void setNotifyCallback();
    // Queues the erasure of an installed package; throws Common::Error code 2 when refused.
    void addEraseElement(const HeaderHandle& header);
    // Runs the queued elements; the library reports problems itself and they are not examined.
    // The database takes the changes of all elements at once; false when it could not, and
    // then it may still list packages whose files are gone.
    bool run();

    rpmts handle() const { return set.get(); }

private:
    TransactionSetHandle set;
};

// Those of `names` that the RPM database lists, asked of one open database.
std::set<std::string> installedAmong(const std::vector<std::string>& names);

// Whether the RPM database lists package `name` and every file that it lists for it, but its
// directories, is in place; false too when its file list cannot be read.
bool filesInPlace(const std::string& name);

// Every installed package, in database order. Walked once.
class InstalledPackageIterator {
public:
    InstalledPackageIterator();

    // The reader lends the database's header: it, and anything built over it, must not be
    // used after the callback returns.
    void forEach(const std::function<IterationResult(const Reader&)>& callback);

private:
    MatchIteratorHandle iterator;
};

} // namespace Common::Rpm
