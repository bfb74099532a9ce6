#include "core/StopRequest.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <csignal>

TEST(StopRequestTest, isMadeUntilItIsTakenBack)
{
    StopRequest request;
    EXPECT_FALSE(request.isMade());
    EXPECT_FALSE(request.isMadeOrPending());
    request.make();
    EXPECT_TRUE(request.isMade());
    EXPECT_TRUE(request.isMadeOrPending());
    request.takeBack();
    EXPECT_FALSE(request.isMade());
}

/// Work that ends for the signal asks twice, before it ends and before it logs why. The handler may begin in between.
TEST(StopRequestTest, aSignalThatWaitsToBeServedMakesItForWhoAsks)
{
    sigset_t stop;
    sigset_t before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, &before);
    StopRequest request;
    StopRequest later;
    kill(getpid(), SIGTERM);
    EXPECT_FALSE(request.isMade());
    EXPECT_TRUE(request.isMadeOrPending());
    int taken = 0;
    sigwait(&stop, &taken);
    EXPECT_TRUE(request.isMadeOrPending());
    EXPECT_FALSE(later.isMadeOrPending());
    request.takeBack();
    EXPECT_FALSE(request.isMadeOrPending());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}
