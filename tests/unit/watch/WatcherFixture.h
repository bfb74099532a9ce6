#pragma once

#include "core/SignalObject.h"
#include "support/FakeClock.h"
#include "support/SyslogCapture.h"
#include "support/TemporaryFolder.h"
#include "watch/RecordingListener.h"
#include "watch/SelectAndSystem.h"
#include "watch/VolumeWatcher.h"

#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <system_error>
#include <vector>

/// A watcher of its own with an open inotify descriptor, and the listener of the volume "music".
class WatcherFixture : public ::testing::Test {
protected:
    WatcherFixture()
        : watcher(std::make_unique<VolumeWatcher>())
        , descriptor(watcher->initialize())
    {
        SignalObject::getInstance(); // as in the daemon, made before the first thread
        watcher->addVolumeWatchListener(music, &listener);
    }
    ~WatcherFixture() override { watcher->stop(); }

    /// Watches the folder; the watch descriptor.
    int watch(std::string path, std::string volume = "music") { return watcher->addDirectoryToWatch(volume, path); }
    int unwatch(std::string path) { return watcher->removeDirectoryToWatch(path); }
    /// Makes the folder and watches it; its path.
    std::string watchNew(const std::string& below, const std::string& volume = "music")
    {
        std::string path = folder.makeFolder(below);
        EXPECT_GT(watch(path, volume), 0);
        return path;
    }
    /// Makes a new file in the folder in one step, which is one kernel record of 32 bytes.
    void change(const std::string& path)
    {
        EXPECT_EQ(0, mknod((path + "/f" + std::to_string(++files)).c_str(), S_IFREG | 0644, 0)) << path;
    }
    /// Everything below the folder, one relative path a line.
    std::string tree() const
    {
        std::set<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(folder.path()))
            paths.insert(entry.path().string().substr(folder.path().length()));
        std::string text;
        for (const std::string& path : paths)
            text += path + "\n";
        return text;
    }
    /// What select() is asked in a quiet time: for the inotify descriptor and for the eventfd of the stop.
    std::string quietTimeWait() const
    {
        std::set<int> awaited = { descriptor };
        for (const auto& open : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone; // the descriptor of the listing itself
            if (std::filesystem::read_symlink(open.path(), gone) == "anon_inode:[eventfd]")
                awaited.insert(std::stoi(open.path().filename().string()));
        }
        EXPECT_EQ(2U, awaited.size());
        return "1024 [" + std::to_string(*awaited.begin()) + " " + std::to_string(*awaited.rbegin()) + "] 5s 0us";
    }
    /// Has the event routed as the thread does it.
    void route(int watchDescriptor)
    {
        inotify_event event = {};
        event.wd = watchDescriptor;
        watcher->handleChangeFolder(&event);
    }

    TemporaryFolder folder;
    RecordingListener listener;
    std::unique_ptr<VolumeWatcher> watcher;
    int descriptor; ///< inotify's
    std::string music = "music";
    int files = 0;
};

/// The same where the time stands still and the quiet time is over at once, unless a test says otherwise.
class BurstFixture : public WatcherFixture {
protected:
    static constexpr time_t aMoment = 1000000000;

    BurstFixture() { setQuietTime(std::chrono::milliseconds(0)); }

    /// Starts the thread and waits until it is in its first burst, where it waits for events.
    void startAndWait()
    {
        watcher->start();
        ASSERT_TRUE(clock.waitUntilAsked(1));
    }

    ClockAt clock { aMoment };
};

/// Takes the place of the kernel behind an inotify descriptor: the watcher reads what the test sends, one packet a
/// read. The watches have to be in the registry before.
class FedDescriptor {
public:
    explicit FedDescriptor(int descriptor)
        : kept(dup(descriptor))
    {
        int ends[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends));
        EXPECT_EQ(descriptor, dup2(ends[0], descriptor));
        close(ends[0]);
        feeder = ends[1];
    }
    ~FedDescriptor()
    {
        close(feeder);
        close(kept);
    }
    FedDescriptor(const FedDescriptor&) = delete;
    FedDescriptor& operator=(const FedDescriptor&) = delete;

    /// What the next read returns: a record without a name for each descriptor.
    void send(const std::vector<int>& watchDescriptors) const
    {
        std::vector<inotify_event> records(watchDescriptors.size());
        for (std::size_t i = 0; i < records.size(); ++i)
            records[i].wd = watchDescriptors[i];
        const std::size_t length = records.size() * sizeof(inotify_event);
        EXPECT_EQ(static_cast<ssize_t>(length), ::send(feeder, records.data(), length, 0));
    }

private:
    int kept; ///< inotify's, so that its watches stay
    int feeder;
};
