#include "core/Survival.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <stdexcept>
#include <string>

namespace {

/// What onFailure() is told, "-" when it is not called.
template <typename Action>
std::string failureOf(const Action& action, bool expected)
{
    std::string failure = "-";
    EXPECT_EQ(expected, survive(action, [&failure](const char* text) { failure = text; }));
    return failure;
}

} // namespace

TEST(SurvivalTest, workThatSucceedsIsNoFailure)
{
    bool done = false;
    EXPECT_EQ("-", failureOf([&done] { done = true; }, true));
    EXPECT_TRUE(done);
}

TEST(SurvivalTest, exceptionEndsHereWithItsText)
{
    EXPECT_EQ("broken", failureOf([] { throw std::runtime_error("broken"); }, false));
}

TEST(SurvivalTest, bareStringEndsHereToo)
{
    EXPECT_EQ("broken", failureOf([] { throw "broken"; }, false));
}

TEST(SurvivalTest, nothingElseIsCaught)
{
    EXPECT_THROW(survive([] { throw 1; }, [](const char*) { ADD_FAILURE(); }), int);
}

TEST(SurvivalTest, threadMayEndInTheMiddle)
{
    const auto body = [](void*) -> void* {
        survive([] { pthread_exit(nullptr); }, [](const char*) { ADD_FAILURE(); });
        ADD_FAILURE() << "went on";
        return nullptr;
    };
    pthread_t thread = {};
    ASSERT_EQ(0, pthread_create(&thread, nullptr, body, nullptr));
    EXPECT_EQ(0, pthread_join(thread, nullptr));
}
