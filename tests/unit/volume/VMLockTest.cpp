#include "volume/VMLock.h"

#include "SystemHooks.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <type_traits>

namespace {

class VMLockTest : public ::testing::Test {
protected:
    VMLockTest() { sem_init(&semaphore, 0, 1); }
    ~VMLockTest() override { sem_destroy(&semaphore); }

    int value()
    {
        int count = -1;
        sem_getvalue(&semaphore, &count);
        return count;
    }

    sem_t semaphore;
};

TEST_F(VMLockTest, isTakenForTheScope)
{
    {
        const VMLock held(&semaphore);
        EXPECT_EQ(0, value());
    }
    EXPECT_EQ(1, value());
}

TEST_F(VMLockTest, isReleasedWhenAnExceptionPasses)
{
    EXPECT_THROW(
        {
            const VMLock held(&semaphore);
            throw std::runtime_error("passes");
        },
        std::runtime_error);
    EXPECT_EQ(1, value());
}

TEST_F(VMLockTest, waitThatIsInterruptedIsNotRepeated)
{
    int waits = 0;
    const OnSemWait interrupt([&waits](sem_t*) { return ++waits == 1; });
    {
        const VMLock held(&semaphore);
        EXPECT_EQ(1, value());
    }
    EXPECT_EQ(2, value());
}

TEST_F(VMLockTest, isReleasedThroughTheBaseClass)
{
    struct Derived : VMLock {
        using VMLock::VMLock;
    };
    EXPECT_TRUE(std::has_virtual_destructor_v<VMLock>);
    VMLock* held = new Derived(&semaphore);
    EXPECT_EQ(0, value());
    delete held;
    EXPECT_EQ(1, value());
}

} // namespace
