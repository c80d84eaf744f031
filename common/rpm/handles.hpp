#pragma once

// Shared owners of librpm handles: each handle is released by the library's own function when
// its last owner goes.

#include <memory>
#include <rpm/rpmtypes.h>

namespace Common::Rpm {

using FdHandle = std::shared_ptr<struct _FD_s>;
using TransactionSetHandle = std::shared_ptr<rpmts_s>;
using MatchIteratorHandle = std::shared_ptr<rpmdbMatchIterator_s>;
using TagDataHandle = std::shared_ptr<rpmtd_s>;
using FilesHandle = std::shared_ptr<rpmfiles_s>;
using FileIteratorHandle = std::shared_ptr<rpmfi_s>;
using HeaderHandle = std::shared_ptr<headerToken_s>;
using VersionHandle = std::shared_ptr<rpmver_s>;

// Each takes ownership of `raw` (which may be null). Should the owner itself fail to allocate,
// the handle is released before the exception leaves.
FdHandle ownFd(FD_t raw);
TransactionSetHandle ownTransactionSet(rpmts raw);
MatchIteratorHandle ownMatchIterator(rpmdbMatchIterator raw);
TagDataHandle ownTagData(rpmtd raw);
FilesHandle ownFiles(rpmfiles raw);
FileIteratorHandle ownFileIterator(rpmfi raw);
HeaderHandle ownHeader(Header raw);
VersionHandle ownVersion(rpmver raw);

// A header lent by someone else (the installed-package database): never released by us.
HeaderHandle borrowHeader(Header raw);
// A reference of our own to a lent header: it stays valid while we hold it, whatever the lender
// does.
HeaderHandle keepHeader(const HeaderHandle& header);

} // namespace Common::Rpm
