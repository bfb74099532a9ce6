#include "EventSteps.h"

#include <algorithm>
#include <cstddef>

const std::vector<EventSteps::Weighted>& EventSteps::allSteps()
{
    static const std::vector<Weighted> all = {
        { "make file", 16, &EventSteps::makeFile },
        { "write file", 10, &EventSteps::writeFile },
        { "remove file", 6, &EventSteps::removeFile },
        { "replace file", 3, &EventSteps::replaceFile },
        { "make and remove file", 1, &EventSteps::makeAndRemoveFile },
        { "move file", 12, &EventSteps::moveFile },
        { "move file onto another", 2, &EventSteps::moveFileOntoAnother },
        { "move file on at once", 2, &EventSteps::moveFileOnAtOnce },
        { "save file", 3, &EventSteps::saveFile },
        { "make folder", 8, &EventSteps::makeFolder },
        { "make tree", 3, &EventSteps::makeTree },
        { "remove folder", 3, &EventSteps::removeFolder },
        { "move folder", 10, &EventSteps::moveFolder },
        { "move folder onto an empty one", 2, &EventSteps::moveFolderOntoAnEmptyOne },
        { "move folder on at once", 2, &EventSteps::moveFolderOnAtOnce },
        { "lose new file", 2, &EventSteps::loseNewFile },
        { "lose new folder", 1, &EventSteps::loseNewFolder },
        { "touch folder", 2, &EventSteps::touchFolder },
        { "move out", 2, &EventSteps::moveOut },
        { "move in", 2, &EventSteps::moveIn },
    };
    return all;
}

void EventSteps::takeStep()
{
    int total = 0;
    for (const Weighted& one : allSteps())
        total += one.weight;
    for (;;) {
        int drawn = static_cast<int>(upTo(static_cast<std::size_t>(total)));
        const auto one = std::find_if(allSteps().begin(), allSteps().end(), [&](const Weighted& candidate) {
            drawn -= candidate.weight;
            return drawn < 0;
        });
        if ((this->*one->step)()) {
            ++taken[one->name];
            return;
        }
    }
}
