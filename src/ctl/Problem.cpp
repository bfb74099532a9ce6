#include "ctl/Problem.h"

#include "ctl/Text.h"

#include <fmt/format.h>

#include <cstdio>

static std::string asLastSentence(const std::string& remedy)
{
    if (remedy.empty())
        return "";
    return " " + remedy + (remedy.back() == '?' ? "" : ".");
}

Problem::Problem(const std::string& subject, const std::string& reason, const std::string& remedy)
    : std::runtime_error(visible(subject) + ": " + visible(reason) + "." + asLastSentence(remedy))
{
}

void report(const Problem& problem) { fmt::print(stderr, "quarrowctl: {}\n", problem.what()); }
