#include "ctl/report/ReportPage.h"

#include "ctl/HostConfiguration.h"
#include "ctl/report/PageParts.h"
#include "ctl/report/ReportData.h"
#include "ctl/report/VolumeSummary.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

std::size_t occurrences(std::string_view text, std::string_view what)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(what); at != std::string_view::npos; at = text.find(what, at + 1))
        ++count;
    return count;
}

TEST(ReportPageTest, noTagGetsOutOfTheData)
{
    const std::string hostile = "</script><script>alert(1)</script><!--\"'\\ &lt; \xe2\x80\xa8";
    const std::string json = nlohmann::json { { "name", hostile } }.dump();
    const std::string safe = withoutTags(json);
    EXPECT_EQ(std::string::npos, safe.find('<'));
    EXPECT_EQ(hostile, nlohmann::json::parse(safe)["name"]);
}

TEST(ReportPageTest, thePageIsWhole)
{
    const std::string page = reportPage("{\"a\":\"</script><!--\"}");
    EXPECT_EQ(0U, page.find("<!DOCTYPE html>\n"));
    EXPECT_EQ(std::string::npos, page.find("/*STYLE*/"));
    EXPECT_EQ(std::string::npos, page.find("/*SCRIPT*/"));
    for (const std::string_view part : { pageStyle(), chartLibrary(), pageScript() }) {
        EXPECT_GT(part.size(), 1000U);
        EXPECT_EQ(1U, occurrences(page, part));
    }
    EXPECT_NE(std::string::npos, page.find("\n{\"a\":\"\\u003c/script>\\u003c!--\"}\n</script>"));
    EXPECT_EQ(3U, occurrences(page, "</script>")); // library, data, script
    EXPECT_EQ("</html>\n", page.substr(page.size() - 9, 8));
}

TEST(ReportPageTest, theLibraryBringsItsLicence)
{
    EXPECT_EQ(0U, chartLibrary().find("/*\nFormat:"));
    EXPECT_NE(std::string_view::npos, chartLibrary().find("Redistributions in binary form must reproduce"));
}

TEST(ReportPageTest, noPartLoadsAnything)
{
    for (const std::string_view part : { pageTemplate(), pageStyle(), pageScript() }) {
        for (const char* word : { "http:", "https:", "url(", "@import", " src=", "fetch(", "innerHTML", "eval(" })
            EXPECT_EQ(0U, occurrences(part, word)) << word;
    }
}

TEST(ReportDataTest, brokenVolumesStandBesideTheOthers)
{
    ReportData data;
    data.addBroken({ "a\xff", "/srv/a", {}, {} }, "No\nway");
    data.addBroken({ "b", "/srv/b", {}, {} }, "Neither");
    const auto json = nlohmann::json::parse(data.text(1700000000));
    EXPECT_EQ("a\\xff", json["volumes"][0]["name"]);
    EXPECT_EQ("No\\nway", json["volumes"][0]["problem"]);
    EXPECT_EQ("b", json["volumes"][1]["name"]);
    EXPECT_EQ(0U, json["made"].get<std::string>().find("2023-11-1"));
}

} // namespace
