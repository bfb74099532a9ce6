#include "ctl/Terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace terminal {

bool isTerminal() { return isatty(STDOUT_FILENO) == 1; }

bool hasColours()
{
    const char* const forbidden = std::getenv("NO_COLOR");
    const char* const type = std::getenv("TERM");
    return isTerminal() && (forbidden == nullptr || *forbidden == '\0')
        && (type == nullptr || std::strcmp(type, "dumb") != 0);
}

int width()
{
    winsize size = {};
    return ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

std::string coloured(const std::string& text, Colour colour)
{
    static const char* const codes[] = { "", "1", "2", "31", "32", "33", "34" };
    if (colour == Colour::none || !hasColours())
        return text;
    return std::string("\033[") + codes[static_cast<int>(colour)] + "m" + text + "\033[0m";
}

} // namespace terminal
