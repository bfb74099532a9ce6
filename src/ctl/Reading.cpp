#include "ctl/Reading.h"

#include "ctl/Catalogue.h"
#include "ctl/Problem.h"
#include "ctl/Query.h"

#include <sqlite3.h>

Reading::Reading(const Catalogue& opened)
    : catalogue(opened)
{
    Query(catalogue, "begin").next();
    try {
        Query(catalogue, "select 1 from sqlite_master limit 1").next(); // the first read chooses the state
    } catch (const Problem&) {
        end();
        throw;
    }
}

Reading::~Reading() { end(); }

void Reading::end() const { sqlite3_exec(catalogue.get(), "rollback", nullptr, nullptr, nullptr); }
