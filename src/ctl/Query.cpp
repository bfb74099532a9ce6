#include "ctl/Query.h"

#include "ctl/Catalogue.h"

#include <sqlite3.h>

#include <chrono>
#include <thread>

namespace {

/// A read without the right to write can meet the log's index just while that is changed. The next one succeeds.
template <typename Call>
int repeatWhileIndexChanges(const Call& call)
{
    int status = call();
    for (int tries = 0; (status & 0xff) == SQLITE_READONLY && tries < 50; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        status = call();
    }
    return status;
}

} // namespace

Query::Query(const Catalogue& opened, const std::string& text)
    : catalogue(opened)
{
    const int status = repeatWhileIndexChanges(
        [&] { return sqlite3_prepare_v2(catalogue.get(), text.c_str(), -1, &statement, nullptr); });
    if (status != SQLITE_OK)
        catalogue.fail(status);
}

Query::~Query() { sqlite3_finalize(statement); }

Query& Query::bind(long long value)
{
    sqlite3_bind_int64(statement, ++bound, value);
    return *this;
}

Query& Query::bind(std::string_view bytes)
{
    sqlite3_bind_text(statement, ++bound, bytes.data(), static_cast<int>(bytes.size()), SQLITE_TRANSIENT);
    return *this;
}

bool Query::next()
{
    const int status = stepped ? sqlite3_step(statement) : repeatWhileIndexChanges([this] {
        sqlite3_reset(statement);
        return sqlite3_step(statement);
    });
    stepped = true;
    if (status != SQLITE_ROW && status != SQLITE_DONE)
        catalogue.fail(status);
    return status == SQLITE_ROW;
}

void Query::reset()
{
    sqlite3_reset(statement);
    bound = 0;
    stepped = false;
}

bool Query::isNull(int column) const { return sqlite3_column_type(statement, column) == SQLITE_NULL; }

long long Query::number(int column) const { return sqlite3_column_int64(statement, column); }

std::string_view Query::bytes(int column) const
{
    const void* const start = sqlite3_column_blob(statement, column);
    const int length = sqlite3_column_bytes(statement, column);
    return start == nullptr ? std::string_view()
                            : std::string_view(static_cast<const char*>(start), static_cast<std::size_t>(length));
}
