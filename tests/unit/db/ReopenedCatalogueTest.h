#pragma once

#include "db/CatalogueTest.h"
#include "db/DBOperationException.h"
#include "support/SyslogCapture.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

inline constexpr uid_t nobody = 65534;
inline const LogLine version { LOG_INFO, std::string("sqlite version: ") + sqlite3_libversion() + "\n" };
inline const LogLine generating { LOG_INFO, "Generating schema" };
inline const LogLine refused { LOG_ERR, "open() failed, handleStatus: 14\n" };
inline const LogLine notAuthorized { LOG_ERR, "open() failed, handleStatus: 23\n" };

/// Catalogues that are closed, given away, and opened again.
class ReopenedCatalogueTest : public CatalogueTest {
protected:
    void expectRefused(const LogLine& line = refused)
    {
        clearLog();
        EXPECT_THROW(open(), DBOperationException);
        EXPECT_EQ(line, loggedLines().back());
        db.reset();
    }

    /// A catalogue with a folder, which is closed.
    void makeClosed()
    {
        openNew();
        DBFolder music = folderAt("/Music");
        EXPECT_TRUE(db->insertFolder(music, true));
        close();
    }

    static bool isRoot() { return geteuid() == 0; }
    static void giveAway(const std::string& path, mode_t mode = 0666)
    {
        EXPECT_EQ(0, chmod(path.c_str(), mode));
        EXPECT_EQ(0, chown(path.c_str(), nobody, nobody));
    }
    static std::string ownerAndMode(const std::string& path)
    {
        struct stat64 status = {};
        EXPECT_EQ(0, lstat64(path.c_str(), &status)) << path;
        char text[64];
        std::snprintf(text, sizeof text, "%u %o", status.st_uid, status.st_mode & 07777U);
        return text;
    }
};
