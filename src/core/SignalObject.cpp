#include "core/SignalObject.h"

SignalObject* SignalObject::instance = nullptr;

SignalObject* SignalObject::getInstance()
{
    if (instance == nullptr)
        instance = new SignalObject;
    return instance;
}

SignalObject::SignalObject() { sem_init(&semaphore, 0, 1); }

SignalObject::~SignalObject() { sem_destroy(&semaphore); }

int SignalObject::notify() { return sem_post(&semaphore); }

int SignalObject::wait() { return sem_wait(&semaphore); }
