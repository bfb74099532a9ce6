#include "support/TemporaryFolder.h"
#include "watch/VolumeWatcher.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <memory>
#include <string>

namespace {

/// The process may not open anything for the length of the scope.
class NoMoreDescriptors {
public:
    NoMoreDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        const rlimit none = { 0, before.rlim_max };
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NoMoreDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    NoMoreDescriptors(const NoMoreDescriptors&) = delete;
    NoMoreDescriptors& operator=(const NoMoreDescriptors&) = delete;

private:
    rlimit before;
};

template <typename Action>
std::string textThrownBy(Action action)
{
    try {
        action();
    } catch (const char* text) {
        return text;
    }
    return "nothing";
}

TEST(VolumeWatcherStartTest, initializeThrowsABareTextWithoutInotify)
{
    const auto watcher = std::make_unique<VolumeWatcher>();
    const NoMoreDescriptors limit;
    EXPECT_EQ("*** error inot_handle", textThrownBy([&] { watcher->initialize(); }));
}

TEST(VolumeWatcherStartTest, theFirstGetInstanceThrowsWithoutInotifyAndLaterOnesReturnTheObject)
{
    std::make_unique<VolumeWatcher>(); // the sanitizer looks at the first object of a class by means of descriptors
    {
        const NoMoreDescriptors limit;
        EXPECT_EQ("*** error inot_handle", textThrownBy([] { VolumeWatcher::getInstance(); }));
        EXPECT_EQ("nothing", textThrownBy([] { VolumeWatcher::getInstance(); }))
            << "it was kept, and is not tried again";
    }
    VolumeWatcher* instance = VolumeWatcher::getInstance();
    EXPECT_NE(nullptr, instance);
    EXPECT_EQ(instance, VolumeWatcher::getInstance());
}

TEST(VolumeWatcherStartTest, theFirstGetInstanceOpensInotify)
{
    VolumeWatcher* instance = VolumeWatcher::getInstance();
    EXPECT_EQ(instance, VolumeWatcher::getInstance());
    TemporaryFolder folder;
    std::string volume = "music";
    std::string path = folder.path();
    EXPECT_EQ(1, instance->addDirectoryToWatch(volume, path));
    instance->stop();
}

} // namespace
