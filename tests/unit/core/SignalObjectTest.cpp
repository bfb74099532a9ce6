#include "core/SignalObject.h"
#include "core/WakeUps.h"

#include <gtest/gtest.h>

#include <thread>
#include <type_traits>

namespace {

static_assert(std::has_virtual_destructor_v<SignalObject>);

TEST(SignalObjectTest, theFirstWaitReturnsAtOnce)
{
    SignalObject signalObject;
    EXPECT_EQ(0, signalObject.wait());
    EXPECT_EQ(0, takeWakeUps(signalObject));
}

TEST(SignalObjectTest, everyNotifyLetsOneWaitReturn)
{
    SignalObject signalObject;
    EXPECT_EQ(0, signalObject.notify());
    EXPECT_EQ(0, signalObject.notify());
    EXPECT_EQ(1 + 2, takeWakeUps(signalObject));
    EXPECT_EQ(0, signalObject.notify());
    EXPECT_EQ(1, takeWakeUps(signalObject));
}

TEST(SignalObjectTest, notificationsAreNeverMerged)
{
    SignalObject signalObject;
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(0, signalObject.notify());
    EXPECT_EQ(1 + 1000, takeWakeUps(signalObject));
}

TEST(SignalObjectTest, anInterruptedWaitReturnsSomethingElse)
{
    // takeWakeUps() ends with such a wait.
    SignalObject signalObject;
    EXPECT_EQ(1, takeWakeUps(signalObject));
    EXPECT_EQ(0, takeWakeUps(signalObject)) << "and consumes nothing";
    signalObject.notify();
    EXPECT_EQ(1, takeWakeUps(signalObject));
}

TEST(SignalObjectTest, aNotifyWakesAnotherThread)
{
    SignalObject signalObject;
    EXPECT_EQ(0, signalObject.wait());
    std::thread sleeper([&] { EXPECT_EQ(0, signalObject.wait()); });
    signalObject.notify();
    sleeper.join();
}

TEST(SignalObjectTest, thereIsOneForTheProcess)
{
    SignalObject* instance = SignalObject::getInstance();
    ASSERT_NE(nullptr, instance);
    EXPECT_EQ(instance, SignalObject::getInstance());
}

} // namespace
