#pragma once

// The trusted-sources store as its users see it: signing sources and the packages bound to them.

#include <string>
#include <vector>

namespace Core::TrustedSources {

// A signing source: a certificate key id, its subject, and the packages bound to it.
struct Source {
    std::string keyId;
    std::string subject;
    std::vector<std::string> packages;
};

// Every operation throws TSError when the store cannot do it.
class IDatabase {
public:
    virtual ~IDatabase() = default;

    virtual bool isRequired() = 0;
    virtual void setRequired(bool required) = 0;
    // An existing key id is kept as it is; the record's packages are not stored.
    virtual void addSource(const Source& source) = 0;
    // Removes the source and its bindings together.
    virtual void removeSource(const std::string& keyId) = 0;
    virtual bool hasSource(const std::string& keyId) = 0;
    virtual Source source(const std::string& keyId) = 0;
    virtual Source packageSource(const std::string& packageId) = 0;
    // Fails for a package that is already bound and for an unknown key id.
    virtual void bindPackageToSource(const std::string& packageId, const std::string& keyId) = 0;
    virtual void unbindPackage(const std::string& packageId) = 0;
    virtual bool hasPackage(const std::string& packageId) = 0;
    // Ordered by subject, descending.
    virtual std::vector<Source> sources() = 0;
};

} // namespace Core::TrustedSources
