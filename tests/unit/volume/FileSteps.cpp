#include "EventSteps.h"

#include <sys/stat.h>

// The steps of EventSteps with files.

bool EventSteps::makeFile()
{
    if (filePaths().size() >= mostFiles)
        return removeFile();
    const std::string path = freePath();
    const bool isClosed = upTo(3) != 0;
    if (isClosed) {
        makeFileAt(path);
    } else { // in one go, which is no end of writing
        say("make empty file " + path);
        EXPECT_EQ(0, mknod(full(path).c_str(), S_IFREG | 0644, 0));
    }
    deliver();
    tellNewFile(path, isClosed);
    return true;
}

bool EventSteps::writeFile()
{
    const auto path = anyFile();
    if (!path)
        return false;
    struct stat before = {};
    EXPECT_EQ(0, stat(full(*path).c_str(), &before));
    const unsigned way = upTo(9);
    say("write " + *path + " in way " + std::to_string(way));
    if (way == 0) { // the modified time alone: the kernel tells it as a write that has not ended
        setModifiedTime(full(*path), anyTime());
        deliver();
        model.changedUntold(*path);
        return true;
    }
    const bool isSetBack = way > 6; // the size changes alone
    if (way > 2)
        write(full(*path), 0, way > 4 ? 1 + upTo(9) : 0);
    if (way <= 2)
        setTimes(full(*path), anyTime());
    if (isSetBack)
        setTimes(full(*path), before.st_mtime);
    deliver();
    if (isSeen(*path))
        tellModified(*path, isSetBack ? 2 : 1);
    return true;
}

bool EventSteps::removeFile()
{
    const auto path = anyFile();
    if (!path)
        return false;
    removeFileAt(*path);
    deliver();
    tellRemovedFile(*path);
    return true;
}

bool EventSteps::replaceFile()
{
    const auto path = anyFile();
    if (!path)
        return false;
    removeFileAt(*path);
    makeFileAt(*path);
    deliver();
    tellRemovedFile(*path);
    tellNewFile(*path, true);
    return true;
}

bool EventSteps::makeAndRemoveFile()
{
    const std::string path = freePath();
    makeFileAt(path);
    removeFileAt(path);
    deliver();
    tellRemovedFile(path);
    return true;
}

bool EventSteps::moveFile()
{
    const auto from = anyFile();
    return from && moveFileTo(*from, freePathIn(upTo(2) == 0 ? folderOf(*from) : anyFolderOrTheStart()));
}

bool EventSteps::moveFileOntoAnother()
{
    const auto from = anyFile();
    const auto to = anyFile();
    return from && from != to && moveFileTo(*from, *to);
}

bool EventSteps::moveFileTo(const std::string& from, const std::string& to)
{
    rename(from, to);
    deliver();
    tellMovedFile(from, to);
    return true;
}

bool EventSteps::moveFileOnAtOnce()
{
    const auto from = anyFile();
    const std::string between = freePath();
    const std::string to = freePath();
    if (!from || between == to || !isSeen(*from) || !isSeen(between) || !isSeen(to))
        return false;
    rename(*from, between);
    rename(between, to);
    deliver();
    tellMovedFile(*from, between);
    tellMovedFile(between, to);
    return true;
}

bool EventSteps::saveFile()
{
    const auto path = anyFile();
    if (!path)
        return false;
    const std::string temporary = folderOf(*path) + "/saving";
    makeFileAt(temporary);
    rename(temporary, *path);
    deliver();
    if (isSeen(*path))
        model.movedFile(temporary, *path);
    model.touchedFolder(folderOf(*path));
    return true;
}

bool EventSteps::loseNewFile()
{
    const std::string path = freePath();
    makeFileAt(path);
    deliver(true);
    model.cameUnseen(path);
    if (isSeen(path))
        model.modifiedFile(path); // the end of the writing comes through
    model.touchedFolder(folderOf(path));
    return true;
}
