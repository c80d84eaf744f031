#include "common/rpm/handles.hpp"

#include <rpm/header.h>
#include <rpm/rpmdb.h>
#include <rpm/rpmfi.h>
#include <rpm/rpmio.h>
#include <rpm/rpmtd.h>
#include <rpm/rpmts.h>
#include <rpm/rpmver.h>

namespace Common::Rpm {

namespace {

// Not every release function of the library accepts null.
template <typename Raw, typename Release> void release(Raw raw, Release function) {
    if (raw)
        function(raw);
}

} // namespace

// std::shared_ptr calls the deleter on the raw pointer when its control block cannot be
// allocated, which is the release-before-propagating rule.
FdHandle ownFd(FD_t raw) {
    return {raw, [](FD_t fd) { release(fd, Fclose); }};
}

TransactionSetHandle ownTransactionSet(rpmts raw) {
    return {raw, [](rpmts ts) { release(ts, rpmtsFree); }};
}

MatchIteratorHandle ownMatchIterator(rpmdbMatchIterator raw) {
    return {raw, [](rpmdbMatchIterator mi) { release(mi, rpmdbFreeIterator); }};
}

TagDataHandle ownTagData(rpmtd raw) {
    return {raw, [](rpmtd td) { release(td, rpmtdFree); }};
}

FilesHandle ownFiles(rpmfiles raw) {
    return {raw, [](rpmfiles files) { release(files, rpmfilesFree); }};
}

FileIteratorHandle ownFileIterator(rpmfi raw) {
    return {raw, [](rpmfi fi) { release(fi, rpmfiFree); }};
}

HeaderHandle ownHeader(Header raw) {
    return {raw, [](Header h) { release(h, headerFree); }};
}

VersionHandle ownVersion(rpmver raw) {
    return {raw, [](rpmver version) { release(version, rpmverFree); }};
}

HeaderHandle borrowHeader(Header raw) {
    return {raw, [](Header) {}};
}

HeaderHandle keepHeader(const HeaderHandle& header) {
    return ownHeader(headerLink(header.get()));
}

} // namespace Common::Rpm
