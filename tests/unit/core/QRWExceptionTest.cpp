#include "core/QRWException.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

static_assert(std::is_base_of_v<std::exception, QRWException>);

std::string thrownText()
{
    try {
        throw QRWException("Already started");
    } catch (QRWException& e) {
        return e.what();
    }
}

std::string textSeenByTheBase()
{
    try {
        throw QRWException("Already started");
    } catch (const std::exception& e) {
        return e.what();
    }
}

TEST(QRWExceptionTest, showsItsMessageToWhoCatchesItByName) { EXPECT_EQ("Already started", thrownText()); }

TEST(QRWExceptionTest, showsTheTextOfTheBaseToWhoCatchesTheBase)
{
    EXPECT_STREQ("std::exception", textSeenByTheBase().c_str());
}

TEST(QRWExceptionTest, keepsACopyOfTheMessage)
{
    std::string message = "first";
    QRWException exception(message);
    message = "second";
    EXPECT_STREQ("first", exception.what());
    QRWException copy(exception);
    EXPECT_STREQ("first", copy.what());
}

TEST(QRWExceptionTest, whatIsAPlainMember)
{
    const char* (QRWException::*what)() = &QRWException::what; // neither const nor noexcept
    QRWException exception("text");
    EXPECT_STREQ("text", (exception.*what)());
}

} // namespace
