#pragma once

#include <string>
#include <vector>

/// The test programs have a syslog() of their own that keeps what is logged. Any thread.
struct LogLine {
    int priority;     ///< LOG_INFO or LOG_ERR; that the facility is LOG_LOCAL5 was checked when the line came
    std::string text; ///< as formatted, with the newline that the text has or has not

    bool operator==(const LogLine& other) const { return priority == other.priority && text == other.text; }
};

/// For readable failures of EXPECT_EQ.
std::ostream& operator<<(std::ostream& out, const LogLine& line);

/// Everything logged since the start or the last clearLog(), in order.
std::vector<LogLine> loggedLines();
/// Of these the errors.
std::vector<LogLine> loggedErrors();
void clearLog();

/// How many lines are exactly this.
int timesLogged(int priority, const std::string& text);
/// Waits, up to a generous bound, until the line was logged `times` times; false when it was not.
bool waitUntilLogged(int priority, const std::string& text, int times = 1);
