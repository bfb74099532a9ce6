#include "volume/FairLock.h"

#include "support/Waiting.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

TEST(FairLockTest, whoGivesItUpAndWantsItBackWaitsForTheOthers)
{
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    std::mutex door;
    std::atomic<int> turns = 0;
    std::atomic<bool> enough = false;
    std::thread greedy([&] {
        while (!enough) {
            const FairLock held(door, &semaphore);
            ++turns;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    EXPECT_TRUE(waitUntil([&turns] { return turns > 0; }));
    for (int round = 0; round < 50; ++round) {
        const int before = turns;
        const FairLock held(door, &semaphore);
        EXPECT_GE(before + 2, turns) << "the turn that was on, and one that began on the way to the door";
    }
    enough = true;
    greedy.join();
    sem_destroy(&semaphore);
}

TEST(FairLockTest, isReleasedAtTheEndOfTheScope)
{
    sem_t semaphore;
    sem_init(&semaphore, 0, 1);
    std::mutex door;
    {
        const FairLock held(door, &semaphore);
        EXPECT_TRUE(door.try_lock()) << "only while waiting is the door closed";
        door.unlock();
        EXPECT_NE(0, sem_trywait(&semaphore));
    }
    EXPECT_EQ(0, sem_trywait(&semaphore));
    sem_destroy(&semaphore);
}

} // namespace
