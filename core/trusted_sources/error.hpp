#pragma once

// The trusted-sources store's exception: a platform error name and a message.

#include <stdexcept>
#include <string>

namespace Core::TrustedSources {

// The names the store's errors are defined with.
enum class TSErrorKind {
    Internal,
    Database,
    SourceRejectedByAdministrator,
    SourceNotFound,
    UnauthorizedAccess,
    UserNotAuthorizedToManageTrustedSources,
};

// "org.kelvo.Tolva.TrustedSources.Error." followed by the kind's name.
std::string errorName(TSErrorKind kind);

class TSError : public std::runtime_error {
public:
    // what() is "[" + name + "] " + message.
    TSError(std::string name, std::string message);
    TSError(TSErrorKind kind, std::string message) : TSError(errorName(kind), std::move(message)) {}

    const std::string& name() const noexcept { return errorName_; }
    const std::string& message() const noexcept { return message_; }

private:
    std::string errorName_;
    std::string message_;
};

} // namespace Core::TrustedSources
