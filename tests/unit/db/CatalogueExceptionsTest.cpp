#include "db/DBOpenException.h"
#include "db/DBOperationException.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <type_traits>

namespace {

/// What a caller sees who knows only the standard exception.
template <typename Thrown>
std::string whatIsCaught()
{
    try {
        throw Thrown();
    } catch (const std::exception& caught) {
        return caught.what();
    }
}

TEST(CatalogueExceptionsTest, areStandardExceptionsWithFixedTexts)
{
    EXPECT_EQ("DBOperationException occurred", whatIsCaught<DBOperationException>());
    EXPECT_EQ("DBOpenException occurred", whatIsCaught<DBOpenException>());
}

TEST(CatalogueExceptionsTest, areNotOneAnother)
{
    EXPECT_FALSE((std::is_base_of_v<DBOperationException, DBOpenException>));
    EXPECT_FALSE((std::is_base_of_v<DBOpenException, DBOperationException>));
}

TEST(CatalogueExceptionsTest, theExceptionsSayWhichTheyAre)
{
    try {
        throw DBOperationException();
    } catch (const std::exception& e) {
        EXPECT_STREQ("DBOperationException occurred", e.what());
    }
    try {
        throw DBOpenException();
    } catch (const std::exception& e) {
        EXPECT_STREQ("DBOpenException occurred", e.what());
    }
}

} // namespace
