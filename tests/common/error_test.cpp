#include "common/error.hpp"

#include <gtest/gtest.h>

using Common::Error;
using Common::ErrorCode;

TEST(Error, CarriesCodeAndMovedMessage) {
    std::string message = "couldn't open rpm package";
    const Error error(ErrorCode::FileNotFound, std::move(message));
    EXPECT_EQ(error.code(), ErrorCode::FileNotFound);
    EXPECT_EQ(static_cast<std::uint32_t>(error.code()), 3u);
    EXPECT_STREQ(error.what(), "couldn't open rpm package");
    EXPECT_TRUE(message.empty());

    try {
        throw Error(ErrorCode::Filesystem, "couldn't create versioned directory: /opt/app/x");
    } catch (const std::exception& caught) {
        EXPECT_STREQ(caught.what(), "couldn't create versioned directory: /opt/app/x");
    }
}

TEST(Error, NamesFollowThePlatformPrefixAndKeepTheirNumbers) {
    EXPECT_EQ(Common::errorName(ErrorCode::Filesystem), "org.kelvo.Tolva.Error.Filesystem");
    EXPECT_EQ(Common::errorName(ErrorCode::CorruptedInstalledPackage),
              "org.kelvo.Tolva.Error.CorruptedInstalledPackage");
    EXPECT_EQ(Common::errorName(static_cast<ErrorCode>(16)),
              "org.kelvo.Tolva.Error.UserNotAuthorizedToManageTrustedSources");
    EXPECT_EQ(Common::errorName(static_cast<ErrorCode>(11)),
              "org.kelvo.Tolva.Error.CorruptedInstalledPackage");
    EXPECT_EQ(Common::errorName(static_cast<ErrorCode>(0)), "");
    EXPECT_EQ(Common::errorName(static_cast<ErrorCode>(17)), "");
}
