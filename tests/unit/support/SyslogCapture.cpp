#include "support/SyslogCapture.h"

#include "support/SyslogCalls.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <ostream>

namespace {

std::mutex mutex;
std::condition_variable arrived;
std::vector<LogLine> lines;

int countOf(const LogLine& line) { return static_cast<int>(std::count(lines.begin(), lines.end(), line)); }

} // namespace

void takeLogLine(int priority, const std::string& text)
{
    EXPECT_EQ(LOG_LOCAL5, priority & LOG_FACMASK) << text;
    const std::lock_guard<std::mutex> held(mutex);
    lines.push_back({ priority & LOG_PRIMASK, text });
    arrived.notify_all();
}

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << (line.priority == LOG_ERR    ? "ERR "
                   : line.priority == LOG_INFO ? "INFO "
                                               : "? ")
               << '"' << line.text << '"';
}

std::vector<LogLine> loggedLines()
{
    const std::lock_guard<std::mutex> held(mutex);
    return lines;
}

std::vector<LogLine> loggedErrors()
{
    std::vector<LogLine> errors = loggedLines();
    const auto isNoError = [](const LogLine& line) { return line.priority != LOG_ERR; };
    errors.erase(std::remove_if(errors.begin(), errors.end(), isNoError), errors.end());
    return errors;
}

void clearLog()
{
    const std::lock_guard<std::mutex> held(mutex);
    lines.clear();
}

int timesLogged(int priority, const std::string& text)
{
    const std::lock_guard<std::mutex> held(mutex);
    return countOf({ priority, text });
}

bool waitUntilLogged(int priority, const std::string& text, int times)
{
    std::unique_lock<std::mutex> held(mutex);
    return arrived.wait_for(held, std::chrono::seconds(60), [&] { return countOf({ priority, text }) >= times; });
}
