#include "core/trusted_sources/error.hpp"

#include <utility>

namespace Core::TrustedSources {

std::string errorName(TSErrorKind kind) {
    const char* name = "";
    switch (kind) {
    case TSErrorKind::Internal:
        name = "Internal";
        break;
    case TSErrorKind::Database:
        name = "Database";
        break;
    case TSErrorKind::SourceRejectedByAdministrator:
        name = "SourceRejectedByAdministrator";
        break;
    case TSErrorKind::SourceNotFound:
        name = "SourceNotFound";
        break;
    case TSErrorKind::UnauthorizedAccess:
        name = "UnauthorizedAccess";
        break;
    case TSErrorKind::UserNotAuthorizedToManageTrustedSources:
        name = "UserNotAuthorizedToManageTrustedSources";
        break;
    }
    return std::string("org.kelvo.Tolva.TrustedSources.Error.") + name;
}

TSError::TSError(std::string name, std::string message)
    : std::runtime_error("[" + name + "] " + message), errorName_(std::move(name)),
      message_(std::move(message)) {}

} // namespace Core::TrustedSources
