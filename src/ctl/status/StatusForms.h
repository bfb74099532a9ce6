#pragma once

#include <string>
#include <vector>

struct HostStatus;

// The forms that a status is shown in.

/// For people: lines without their ends, with colours and bars where standard output takes them.
std::vector<std::string> statusLines(const HostStatus& host);

/// One JSON object on one line.
std::string statusJson(const HostStatus& host);

/// OpenMetrics text.
std::string statusMetrics(const HostStatus& host);
