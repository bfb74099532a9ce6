#include "EventSteps.h"

#include <cstdlib>
#include <iostream>
#include <set>
#include <sstream>

namespace {

constexpr int steps = 2000;
constexpr int stepsBetweenWalks = 50;

/// QUARROW_MODEL_SEED=123 tries that course instead of the usual ones.
std::vector<Course> courses()
{
    const char* seed = std::getenv("QUARROW_MODEL_SEED");
    const std::vector<unsigned> seeds = seed == nullptr
        ? std::vector<unsigned> { 1, 2 }
        : std::vector<unsigned> { static_cast<unsigned>(std::atoi(seed)) };
    std::vector<Course> all;
    for (const unsigned one : seeds) {
        all.push_back({ one, "" });
        all.push_back({ one, "/Media" });
    }
    return all;
}

std::string nameOfCourse(const ::testing::TestParamInfo<Course>& course)
{
    return "seed" + std::to_string(course.param.seed) + (*course.param.start == '\0' ? "wholeVolume" : "crawlPath");
}

/// Compares catalogue and watches with the model.
class EventModelTest : public EventSteps {
protected:
    std::string liveRows() const { return dumpLiveRows(dbPath()); }
    std::string deletedRows() const { return dumpDeletedRows(dbPath()); }

    static std::set<std::string> linesOf(const std::string& text)
    {
        std::istringstream stream(text);
        std::set<std::string> lines;
        for (std::string line; std::getline(stream, line);)
            lines.insert(line);
        return lines;
    }

    /// The lines that only one of the texts has; "" for equal texts alone.
    static std::string difference(const std::string& expected, const std::string& found)
    {
        std::string text;
        if (expected == found)
            return text;
        const std::set<std::string> left = linesOf(expected);
        const std::set<std::string> right = linesOf(found);
        for (const std::string& line : left)
            text += right.count(line) == 0 ? "expected " + line + "\n" : "";
        for (const std::string& line : right)
            text += left.count(line) == 0 ? "found    " + line + "\n" : "";
        return text.empty() ? "the same lines, not as often or in another order" : text;
    }

    static std::vector<std::string> errorLines()
    {
        std::vector<std::string> lines;
        for (const LogLine& line : loggedErrors())
            lines.push_back(line.text);
        return lines;
    }

    std::string latestSteps() const
    {
        std::string text;
        for (const std::string& line : history)
            text += line + "\n";
        return text;
    }

    void compareAfterStep()
    {
        EXPECT_EQ(model.takeErrors(), errorLines());
        clearLog();
        EXPECT_EQ(model.watches(), watches());
        EXPECT_EQ("", difference(model.liveRows(), liveRows()));
    }

    /// The walk corrects what the model says is out of date, and nothing else.
    void compareWithWalk()
    {
        const std::string before = liveRows();
        const std::map<std::string, CatalogueModel::Reason> unsettled = model.unsettled();
        walkAll();
        const std::string after = liveRows();
        for (const std::string& line : linesOf(difference(before, after))) {
            const auto row
                = line.find_first_of(' ') == std::string::npos ? 0 : line.find_first_not_of(' ', line.find(' '));
            const auto reason = unsettled.find(line.substr(row, line.find("] [") + 1 - row));
            if (reason == unsettled.end())
                ADD_FAILURE() << "the walk corrected, for no known reason: " << line;
            else
                ++corrections[reason->second];
        }
        for (const auto& [row, reason] : model.unsettled()) // a walk, too, brings rows back to life
            EXPECT_EQ(CatalogueModel::cutSize, reason) << row;
        compareAfterStep();
        EXPECT_EQ("", difference(model.deletedRows(), deletedRows()));
        giveOddTimes();
    }

    void walkAll()
    {
        const QuietOutput quiet;
        walk(GetParam().start);
        model.walk(GetParam().start);
    }

    /// Without this most times would be those of one second, and one time mistaken for another would not show.
    void giveOddTimes()
    {
        int count = 0;
        for (const fs::file_type type : { fs::file_type::regular, fs::file_type::directory }) {
            for (const std::string& path : entries(type))
                setTimes(full(path), 500000000 + 1000 * ++count);
        }
        setTimes(full(GetParam().start), 500000000);
        events.discard();
        walkAll();
        change("update Files set created_time=1000+length(cast(path as blob)); "
               "update Folders set created_time=1000+length(cast(path as blob))");
        model.setOddCreatedTimes();
        clearLog();
    }

    std::map<CatalogueModel::Reason, int> corrections; ///< lines that full walks corrected
};

TEST_P(EventModelTest, catalogueFollowsEveryChangeAsTheRulesSay)
{
    std::cout << GetParam() << std::endl;
    begin();
    for (int step = 1; step <= steps && !HasFailure(); ++step) {
        takeStep();
        compareAfterStep();
        if (step % stepsBetweenWalks == 0 && !HasFailure()) {
            say("full walk");
            compareWithWalk();
        }
        if (HasFailure())
            std::cout << "failed after step " << step << ", since the full walk before it:\n" << latestSteps();
        if (step % stepsBetweenWalks == 0)
            history.clear();
    }
    if (HasFailure())
        return;
    std::cout << events.routed() << " events";
    for (const Weighted& one : allSteps()) {
        std::cout << ", " << taken[one.name] << " " << one.name;
        EXPECT_LT(0, taken[one.name]) << one.name;
    }
    std::cout << "\n";
    for (int reason = 0; reason < CatalogueModel::reasons; ++reason) {
        const auto which = static_cast<CatalogueModel::Reason>(reason);
        std::cout << corrections[which] << " lines corrected: " << CatalogueModel::describe(which) << "\n";
        EXPECT_LT(0, corrections[which]) << CatalogueModel::describe(which);
    }
}

INSTANTIATE_TEST_SUITE_P(Courses, EventModelTest, ::testing::ValuesIn(courses()), nameOfCourse);

} // namespace
