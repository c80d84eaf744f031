#include "core/trusted_sources/error.hpp"

#include <gtest/gtest.h>

using namespace Core::TrustedSources;

TEST(TSError, NameAndMessageMakeTheText) {
    const TSError error(TSErrorKind::Database, "trusted sources database not initialized");
    EXPECT_EQ(error.name(), "org.kelvo.Tolva.TrustedSources.Error.Database");
    EXPECT_EQ(error.message(), "trusted sources database not initialized");
    EXPECT_STREQ(error.what(), "[org.kelvo.Tolva.TrustedSources.Error.Database] trusted sources "
                               "database not initialized");
    EXPECT_EQ(TSError(errorName(TSErrorKind::UserNotAuthorizedToManageTrustedSources), "").what(),
              std::string("[org.kelvo.Tolva.TrustedSources.Error."
                          "UserNotAuthorizedToManageTrustedSources] "));
    const std::runtime_error& base = error;
    EXPECT_EQ(std::string(base.what()).rfind("[org.kelvo.", 0), 0u);
}
