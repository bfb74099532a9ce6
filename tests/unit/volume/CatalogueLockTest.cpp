#include "HandlerTest.h"
#include "SystemHooks.h"

#include <atomic>

namespace {

/// SQLite's connection has no mutex of its own, so two threads in it at once would damage memory: the volume's lock is
/// all that keeps them apart. Expects at its end that every statement since has run on a thread that held the lock.
class LockWatch {
public:
    ~LockWatch()
    {
        EXPECT_LT(0, guarded);
        EXPECT_EQ("", unguarded) << "ran without the volume's lock";
    }

private:
    static thread_local int held; ///< locks, by the calling thread

    std::atomic<int> guarded = 0;
    std::string unguarded; ///< the first such statement
    const OnSemWait taken { [](sem_t*) {
        ++held;
        return false;
    } };
    const OnSemPost given { [] { --held; } };
    const OnStatement stepped { [this](const std::string& sql, sqlite3*) {
        if (held == 1)
            ++guarded;
        else if (unguarded.empty())
            unguarded = sql;
    } };
};

thread_local int LockWatch::held = 0;

class CatalogueLockTest : public HandlerTest {
protected:
    LockWatch watch;
};

class CatalogueLockWholeVolumeTest : public VolumeTest {
protected:
    CatalogueLockWholeVolumeTest() { initializeQuietly(); }

    LockWatch watch;
};

TEST_F(CatalogueLockTest, isHeldInWalksAndInTheRemovalOfFormerCrawlPaths)
{
    volume.writeFile("Music/Rock/a.mp3");
    catalogueTopLevelFolders({ "Old", "Music" });
    volume.remove("Music/Rock");
    volume.makeFolder("Films");
    walkOnThread();
    EXPECT_EQ("[/Films] root\n[/Music] root\n[/Music/Rock] in [/Music] deleted\n[/Old] root deleted\n", folders());
}

TEST_F(CatalogueLockWholeVolumeTest, isHeldInTheRemovalOfStrays)
{
    volume.writeFile("Music/a.mp3");
    walkOnThread();
    change("insert into Folders (parent_id, path, name, created_time, modified_time, is_deleted, last_updated_time)"
           " values (-1, '/gone', 'gone', 1, 1, 0, 1)");
    walkOnThread();
    EXPECT_EQ("/gone 1\n", query("select path || ' ' || is_deleted from Folders where parent_id=-1 and path<>''"));
}

TEST_F(CatalogueLockTest, isHeldByEveryHandler)
{
    volume.makeFolder("Music/Rock");
    walk("/Music");
    put("Music/a.mp3", "1", 1000);
    newFile("/Music/a.mp3");
    put("Music/a.mp3", "22", 2000);
    modifyFile("/Music/a.mp3");
    rename("/Music/a.mp3", "/Music/Rock/b.mp3");
    moveFile("/Music/a.mp3", "/Music/Rock/b.mp3");
    EXPECT_EQ("[/Music/Rock/b.mp3] 2 in [/Music/Rock]\n[/Music/a.mp3] 2 in [/Music] deleted\n", files());
    rename("/Music/Rock", "/Music/Pop");
    moveFolder("/Music/Rock", "/Music/Pop");
    volume.remove("Music/Pop/b.mp3");
    deleteFile("/Music/Pop/b.mp3");
    EXPECT_EQ(0, liveFiles());
    volume.makeFolder("Music/New");
    newFolder("/Music/New");
    volume.remove("Music/Pop");
    deleteFolder("/Music/Pop");
    EXPECT_EQ(
        "[/Music] root\n[/Music/New] in [/Music]\n[/Music/Pop] in [/Music] deleted\n[/Music/Rock] in [/Music] deleted\n",
        folders());
    std::string path = root + "/Music";
    volume.writeFile("Music/c.mp3");
    manager->handleChangeFolder(path);
    EXPECT_EQ(1, liveFiles());
}

TEST_F(CatalogueLockTest, isHeldInThePurge)
{
    volume.writeFile("Music/a.mp3");
    walk("/Music");
    change("update Files set is_deleted=1, last_updated_time=1");
    manager->purgeIfRequired(3600);
    EXPECT_EQ("", files());
}

} // namespace
