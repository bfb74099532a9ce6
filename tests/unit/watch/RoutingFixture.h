#pragma once

#include "watch/EventRecord.h"
#include "watch/WatcherFixture.h"

#include <poll.h>

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// A name of blanks, both quotes, what printf() takes for conversions, a newline and bytes that are no UTF-8; as long
/// as the kernel's padding allows without room for a second NUL.
inline const std::string oddName = " 'it' \"is\" 100%s%d;\n\xff\xc0\x80 .mp3...";

/// Also looks around while it is called.
class Onlooker : public RecordingListener {
public:
    std::function<void()> look;

    void handleDeleteFolder(std::string& dir, const char* name) override
    {
        RecordingListener::handleDeleteFolder(dir, name);
        lookAround();
    }
    void handleMoveFolder(std::string& fromDir, const char* fromName, std::string& toDir, const char* toName) override
    {
        RecordingListener::handleMoveFolder(fromDir, fromName, toDir, toName);
        lookAround();
    }

private:
    void lookAround() const
    {
        if (look)
            look();
    }
};

/// Two volumes with a listener each: "music" with the folder a, "photos" with the folder p.
class RoutingFixture : public WatcherFixture {
protected:
    RoutingFixture()
        : a(watchNew("a"))
        , p(watchNew("p", photos))
    {
        watcher->addVolumeWatchListener(photos, &photosListener);
        watcher->addVolumeWatchListener(music, &onlooker);
        clearLog();
    }

    /// What both listeners were called for.
    std::string calls() const
    {
        const std::string others = photosListener.calls();
        return onlooker.calls() + (others.empty() ? "" : "photos: " + others);
    }

    /// The folder that each watch stands for, with its volume's listener, by descriptor: "1 a music\n".
    std::string watches()
    {
        std::string text;
        for (int wd = 1; wd <= 9; ++wd) {
            const std::string::size_type told = onlooker.calls().length();
            const std::string::size_type othersTold = photosListener.calls().length();
            route(wd);
            const std::string path = onlooker.calls().substr(told) + photosListener.calls().substr(othersTold);
            if (!path.empty())
                text += std::to_string(wd) + " "
                    + std::filesystem::path(path.substr(0, path.length() - 1)).filename().string()
                    + (onlooker.calls().length() > told ? " music\n" : " photos\n");
        }
        return text;
    }

    /// The events that the kernel has queued by now, each of them as it was read.
    std::vector<inotify_event*> kernelEvents()
    {
        pollfd ready = { descriptor, POLLIN, 0 };
        EXPECT_EQ(1, poll(&ready, 1, 60000));
        const ssize_t length = read(descriptor, buffer, sizeof buffer);
        std::vector<inotify_event*> events;
        for (char* at = buffer; at < buffer + length;) {
            events.push_back(reinterpret_cast<inotify_event*>(at));
            at += sizeof(inotify_event) + events.back()->len;
        }
        return events;
    }

    void moveFile(int fromWd, const std::string& fromName, int toWd, const std::string& toName)
    {
        EventRecord from(fromWd, fromName);
        EventRecord to(toWd, toName);
        watcher->handleMoveFile(from.get(), to.get());
    }
    void moveFolder(int fromWd, const std::string& fromName, int toWd, const std::string& toName)
    {
        EventRecord from(fromWd, fromName);
        EventRecord to(toWd, toName);
        watcher->handleMoveFolder(from.get(), to.get());
    }
    void deleteFolder(int wd, const std::string& name)
    {
        EventRecord event(wd, name);
        watcher->handleDeleteFolder(event.get());
    }

    static LogLine noTarget(const std::string& volume)
    {
        return { LOG_ERR, "No listener/directory found for " + volume + "\n" };
    }
    static LogLine crossing(const std::string& from, const std::string& to)
    {
        return { LOG_ERR, "We are crossing from " + from + " to " + to + ". Ignore for now\n" };
    }

    static constexpr int unknown = 99; ///< no watch has this descriptor
    const std::vector<LogLine> nothing;
    std::string photos = "photos";
    Onlooker onlooker;
    RecordingListener photosListener;
    std::string a; ///< watch 1
    std::string p; ///< watch 2

private:
    alignas(inotify_event) char buffer[4096];
};
