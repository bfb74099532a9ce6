#pragma once

#include <string>

/// Programs that link this have a syslog() of their own: nothing reaches the machine's log, and each line, as
/// formatted, is given to this function, which the program brings along. Any thread.
void takeLogLine(int priority, const std::string& text);
