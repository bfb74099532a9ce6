#include "volume/FairLock.h"

static sem_t* enter(std::mutex& door, sem_t* sem)
{
    door.lock();
    return sem;
}

FairLock::FairLock(std::mutex& door, sem_t* sem)
    : held(enter(door, sem))
{
    door.unlock();
}
