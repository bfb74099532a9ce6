#pragma once

#include <stdexcept>
#include <string>

/// Why something cannot be read or done: what it is about, the reason, and what the administrator can do about it.
class Problem : public std::runtime_error {
public:
    /// `subject` is a path or another name. `reason` and `remedy` are sentences without a full stop, and the remedy may
    /// be a question or empty. The message is "SUBJECT: REASON. REMEDY.", without control characters.
    Problem(const std::string& subject, const std::string& reason, const std::string& remedy = {});
};

/// Says it on standard error, after the program's name.
void report(const Problem& problem);
