#include "support/SyslogCalls.h"

#include <syslog.h>

#include <cstdarg>
#include <cstdio>

namespace {

void takeFormatted(int priority, const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<std::size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    takeLogLine(priority, text);
}

} // namespace

extern "C" void syslog(int priority, const char* text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    takeFormatted(priority, text, arguments);
    va_end(arguments);
}

// What syslog() becomes in a build with _FORTIFY_SOURCE. C++ cannot pass a variable number of arguments on, so that the
// function above is here once more.
extern "C" void __syslog_chk(int priority, int, const char* text, ...);
extern "C" void __syslog_chk(int priority, int, const char* text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    takeFormatted(priority, text, arguments);
    va_end(arguments);
}
