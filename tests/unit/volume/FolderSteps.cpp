#include "EventSteps.h"

#include <fcntl.h>

#include <cstdio>

// The steps of EventSteps with folders, and those into and out of the volume.

bool EventSteps::makeFolder()
{
    if (folderPaths().size() >= mostFolders)
        return removeFolder();
    const std::string path = freePath();
    makeFolderAt(path);
    deliver();
    tellNewFolder(path);
    return true;
}

bool EventSteps::makeTree()
{
    if (folderPaths().size() >= mostFolders)
        return removeFolder();
    const std::string path = freePath();
    say("make tree " + path);
    fillFolder(full(path));
    deliver();
    tellNewFolder(path);
    return true;
}

bool EventSteps::removeFolder()
{
    const auto path = anyFolder();
    if (!path)
        return false;
    removeTree(*path);
    deliver();
    return true;
}

bool EventSteps::moveFolder()
{
    const auto from = anyFolder();
    return from && moveFolderTo(*from, freePath());
}

bool EventSteps::moveFolderOntoAnEmptyOne()
{
    const auto from = anyFolder();
    const std::string to = freePath();
    if (!from || isInside(to, *from) || !isMovable(*from, to))
        return false;
    makeFolderAt(to);
    deliver();
    tellNewFolder(to);
    model.lostFolder(to);
    return moveFolderTo(*from, to);
}

bool EventSteps::moveFolderOnAtOnce()
{
    const auto from = anyFolder();
    const std::string between = freePath();
    const std::string to = freePath();
    if (!from || between == to || isInside(between, *from) || isInside(to, *from))
        return false;
    if (!isSeen(*from) || !isSeen(between) || !isSeen(to))
        return false;
    rename(*from, between);
    rename(between, to);
    deliver();
    tellMovedFolder(*from, between);
    tellMovedFolder(between, to);
    return true;
}

bool EventSteps::moveFolderTo(const std::string& from, const std::string& to)
{
    if (isInside(to, from) || !isMovable(from, to))
        return false;
    rename(from, to);
    deliver();
    tellMovedFolder(from, to);
    return true;
}

/// A folder that leaves the watched ones gives up one watch, the first that goes by its path. Those below it, or one
/// more of its own (after it took the place of another folder), keep the old path until a walk finds the folder again,
/// and what happens there is taken for something at the old path. So only folders without such watches leave.
bool EventSteps::mayLeave(const std::string& folder) const { return isLeaf(folder) && model.watchesAt(folder) < 2; }

bool EventSteps::isMovable(const std::string& from, const std::string& to) const
{
    return isSeen(to) || !isSeen(from) || mayLeave(from);
}

bool EventSteps::loseNewFolder()
{
    const std::string path = freePath();
    say("make tree unseen " + path);
    fillFolder(full(path));
    deliver(true);
    model.cameUnseen(path);
    model.touchedFolder(folderOf(path));
    return true;
}

bool EventSteps::touchFolder()
{
    const auto path = anyFolder();
    if (!path)
        return false;
    say("set time of " + *path);
    setTimes(full(*path), anyTime());
    deliver();
    model.touchedFolder(*path);
    return true;
}

bool EventSteps::moveOut()
{
    const bool isFolder = upTo(2) == 0;
    const auto path = isFolder ? anyFolder() : anyFile();
    if (!path || (isFolder && !mayLeave(*path)))
        return false;
    say("move out " + *path);
    const bool wasSeen = isSeen(*path);
    EXPECT_EQ(0, ::rename(full(*path).c_str(), newPathOutside().c_str()));
    deliver();
    if (wasSeen && isFolder)
        model.deletedFolder(*path);
    else if (wasSeen)
        model.deletedFile(*path);
    model.touchedFolder(folderOf(*path));
    return true;
}

bool EventSteps::moveIn()
{
    const bool isFolder = upTo(2) == 0;
    if (isFolder && folderPaths().size() >= mostFolders)
        return false;
    const std::string path = freePath();
    const std::string there = newPathOutside();
    say("move in " + path);
    if (isFolder)
        fillFolder(there);
    else
        write(there, O_CREAT | O_EXCL, upTo(100));
    EXPECT_EQ(0, ::rename(there.c_str(), full(path).c_str()));
    deliver();
    if (isFolder)
        tellNewFolder(path);
    else
        tellNewFile(path, false);
    return true;
}
