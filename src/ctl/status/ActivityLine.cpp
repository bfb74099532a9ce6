#include "ctl/status/ActivityLine.h"

#include "ctl/Terminal.h"
#include "ctl/status/TextBar.h"

#include <fmt/format.h>

#include <cstdio>

namespace {

constexpr std::chrono::milliseconds patience(150);
constexpr std::chrono::milliseconds betweenTwo(50);
constexpr int barColumns = 30;

} // namespace

ActivityLine::ActivityLine()
    : isTerminal(terminal::isTerminal())
    , start(Clock::now())
    , lastShown(start)
{
}

ActivityLine::~ActivityLine()
{
    if (!isShown)
        return;
    std::fputs("\r\033[K", stdout);
    std::fflush(stdout);
}

void ActivityLine::show(const std::string& step, double done)
{
    const Clock::time_point now = Clock::now();
    if (!isTerminal || now - start < patience || now - lastShown < betweenTwo)
        return;
    lastShown = now;
    isShown = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - start).count();
    const std::string line = done < 0 ? fmt::format("{}, for {} so far", step, duration(seconds))
                                      : fmt::format("{} {} {:.0f} %", step, bar(done, barColumns), done * 100);
    std::fputs(("\r" + cutToColumns(line, terminal::width() - 1) + "\033[K").c_str(), stdout);
    std::fflush(stdout);
}
