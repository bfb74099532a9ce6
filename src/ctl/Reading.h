#pragma once

class Catalogue;

/// A read transaction for as long as the object lives: all queries see one state of the catalogue. Only for short:
/// meanwhile the daemon's log grows. Throws a Problem when it cannot begin.
class Reading {
public:
    explicit Reading(const Catalogue& opened);
    ~Reading();
    Reading(const Reading&) = delete;
    Reading& operator=(const Reading&) = delete;

private:
    void end() const;

    const Catalogue& catalogue;
};
