#include "ctl/Problem.h"

#include "ctl/Text.h"

#include <fmt/format.h>

#include <cstdio>

Problem::Problem(const std::string& subject, const std::string& reason, const std::string& remedy)
    : std::runtime_error(visible(subject) + ": " + visible(reason) + "." + (remedy.empty() ? "" : " " + remedy + "."))
{
}

void report(const Problem& problem) { fmt::print(stderr, "quarrowctl: {}\n", problem.what()); }
