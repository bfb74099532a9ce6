#pragma once

#include "db/CatalogueTest.h"
#include "db/ConnectionProbe.h"
#include "db/DBOperationException.h"
#include "support/CatalogueDump.h"
#include "support/SqlTexts.h"
#include "support/SyslogCapture.h"

#include <syslog.h>

#include <functional>
#include <string>
#include <vector>

/// A name of blanks, both quotes, what printf() takes for conversions, a newline and bytes that are no UTF-8; and the
/// same as SQL writes it.
inline const std::string oddName = " 'it' \"is\" 100%s%d;\n\xff\xc0\x80 ";
inline const std::string oddNameInSql = " ''it'' \"is\" 100%s%d;\n\xff\xc0\x80 ";

/// An open catalogue whose statements are watched and whose rows are compared whole.
class MovesTest : public CatalogueTest {
protected:
    MovesTest() { openNew(); }
    ~MovesTest() override { close(); }

    /// Times, categories and sizes of its own for every row that insertFolderRow() or insertFileRow() wrote.
    void tellRowsApart() const
    {
        change("update Folders set modified_time = 100 + folder_id, created_time = 200 + folder_id;"
               "update Files set category = 10 + file_id, size = 500 + file_id, modified_time = 300 + file_id,"
               " created_time = 400 + file_id");
    }

    /// dumpRowsInFull(), since the start of the test.
    std::string dump(int firstId = 1) const { return dumpRowsInFull(dbPath, firstId, start); }

    /// What the call printed on standard output, then "true", "false" or the text of its exception.
    static std::string outcomeOf(const std::function<bool()>& call)
    {
        std::string end;
        testing::internal::CaptureStdout();
        try {
            end = call() ? "true" : "false";
        } catch (const DBOperationException& failure) {
            end = failure.what();
        }
        return testing::internal::GetCapturedStdout() + end;
    }

    /// From now on the catalogue refuses such changes: refuse("insert on Files when new.name = 'x'").
    void refuse(const std::string& what)
    {
        change("create trigger refuse" + std::to_string(refusals++) + " before " + what.substr(0, what.find(" when "))
            + " for each row" + (what.find(" when ") == std::string::npos ? "" : what.substr(what.find(" when ")))
            + " begin select raise(abort, 'no'); end");
        openNew(); // the schema is another now
    }

    ConnectionProbe probe;
    const long long start = secondsNow();

private:
    int refusals = 0;
};

/// How a call ends that throws.
inline const std::string failed = "DBOperationException occurred";

/// For the cases of a table that have a name.
template <typename Case>
std::string nameOf(const testing::TestParamInfo<Case>& info)
{
    return info.param.name;
}

inline std::vector<LogLine> errorLine(const std::string& text) { return { { LOG_ERR, text } }; }

// The statements of moves, values put in.

inline std::string quoted(const std::string& text) { return "'" + text + "'"; }
inline std::string liveFolder(const std::string& path) { return sql::liveFolder(quoted(path)); }
inline std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }
inline std::string liveFile(const std::string& path) { return sql::liveFile(quoted(path), quoted(nameIn(path))); }

/// All that inserting a file in a live folder takes.
inline std::string insertFile(
    const std::string& path, int folderId, const std::string& size, const std::string& timesAndCategory)
{
    return liveFile(path) + liveFolder(path.substr(0, path.rfind('/')))
        + sql::anyFile(quoted(path), quoted(nameIn(path)))
        + sql::insertIntoFiles(std::to_string(folderId) + "," + quoted(nameIn(path)) + "," + quoted(path) + "," + size
            + ",strftime('%s','now'), 0, " + timesAndCategory + ",0");
}
inline std::string deleteFile(int id) { return sql::markFile(std::to_string(id)); }
