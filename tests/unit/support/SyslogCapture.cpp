#include "support/SyslogCapture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <ostream>

namespace {

std::mutex mutex;
std::condition_variable arrived;
std::vector<LogLine> lines;

int countOf(const LogLine& line) { return static_cast<int>(std::count(lines.begin(), lines.end(), line)); }

void keep(int priority, const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    EXPECT_EQ(LOG_LOCAL5, priority & LOG_FACMASK) << text;
    const std::lock_guard<std::mutex> held(mutex);
    lines.push_back({ priority & LOG_PRIMASK, text });
    arrived.notify_all();
}

} // namespace

extern "C" void syslog(int priority, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
}

/// What syslog() becomes in a build with _FORTIFY_SOURCE.
extern "C" void __syslog_chk(int priority, int, const char* format, ...);
extern "C" void __syslog_chk(int priority, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    keep(priority, format, arguments);
    va_end(arguments);
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
