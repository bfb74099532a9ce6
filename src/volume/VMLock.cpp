#include "volume/VMLock.h"

VMLock::VMLock(sem_t* sem)
    : semaphore(sem)
{
    sem_wait(semaphore);
}

VMLock::~VMLock() { sem_post(semaphore); }
