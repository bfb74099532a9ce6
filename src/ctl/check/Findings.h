#pragma once

#include <cstddef>
#include <string>
#include <vector>

/// One thing that a check has found out.
struct Finding {
    enum class Kind { refusal, unchecked, warning };
    Kind kind;
    std::string subject; ///< the path, or another name, of what it is about
    int line;            ///< in that file, from 1; 0 when none belongs to it
    std::string reason;  ///< a sentence without a full stop; names in it are raw bytes
    std::string remedy;  ///< likewise
};

/// All that one check has found out. Keeps a thousand of them: a file can have as many faults as it has elements.
class Findings {
public:
    void add(const Finding& finding);
    void sortByLine(); ///< refusals first; what has no line comes before what has one
    void clear();

    const std::vector<Finding>& list() const { return kept; }
    std::size_t omitted() const { return dropped; } ///< how many warnings beyond those of list()
    bool hasRefusal() const { return refused; }

private:
    std::vector<Finding> kept;
    std::size_t dropped = 0;
    bool refused = false;
};

/// Adds to the findings what concerns one subject. Refers to `findings`, which must outlive it.
class FindingsAbout {
public:
    FindingsAbout(Findings& findings, const std::string& subject);

    /// The daemon refuses the configuration for this reason.
    void refuse(int line, const std::string& reason, const std::string& remedy) const;
    /// What the daemon makes of it was not found out, for this reason.
    void leaveUnchecked(const std::string& reason, const std::string& remedy) const;
    /// The daemon takes it without a word.
    void warn(int line, const std::string& reason, const std::string& remedy) const;

private:
    Findings& all;
    const std::string about;
};
