#include "config/HostFileTest.h"

namespace {

/// Names, roots and paths of the volumes in a host configuration file.
class HostFileVolumesTest : public HostFileTest {
protected:
    /// A configuration with these volumes, loaded.
    QuarrowConfig loaded(const std::string& volumesText)
    {
        writeWith(volumesText);
        QuarrowConfig config;
        EXPECT_TRUE(config.load());
        return config;
    }
};

TEST_F(HostFileVolumesTest, keepTheirRootAsWritten)
{
    EXPECT_EQ("a=/\nb=/b/\nc=/c//\nd= /d \ne=relative\n",
        volumes(
            loaded("<Volume><Name>a</Name><Root>/</Root></Volume><Volume><Name>b</Name><Root>/b/</Root></Volume>"
                   "<Volume><Name>c</Name><Root>/c//</Root></Volume><Volume><Name>d</Name><Root> /d </Root></Volume>"
                   "<Volume><Name>e</Name><Root>relative</Root></Volume>")));
}

TEST_F(HostFileVolumesTest, comeInByteOrderOfTheirNames)
{
    EXPECT_EQ("=/0\n10=/1\n9=/2\nB=/3\na=/4\né=/5\n",
        volumes(loaded("<Volume><Name>é</Name><Root>/5</Root></Volume><Volume><Name>a</Name><Root>/4</Root></Volume>"
                       "<Volume><Name>B</Name><Root>/3</Root></Volume><Volume><Name>9</Name><Root>/2</Root></Volume>"
                       "<Volume><Name>10</Name><Root>/1</Root></Volume><Volume><Root>/0</Root></Volume>")));
}

TEST_F(HostFileVolumesTest, mayBeNamedAfterTheirRootAndPaths)
{
    QuarrowConfig config = loaded("<Volume><ExcludePaths><Path>/x</Path></ExcludePaths><CrawlPaths><Path>/c</Path>"
                                  "</CrawlPaths><Root>/v</Root><Name>late</Name></Volume>");
    EXPECT_EQ("late=/v\n", volumes(config));
    EXPECT_EQ("[/c]", crawlPaths(config, "late"));
    EXPECT_EQ("[/x]", excludePaths(config, "late"));
}

TEST_F(HostFileVolumesTest, haveTheEmptyNameWithoutAName)
{
    QuarrowConfig config = loaded("<Volume><Root>/v</Root><CrawlPaths><Path>/c</Path></CrawlPaths></Volume>");
    EXPECT_EQ("=/v\n", volumes(config));
    EXPECT_EQ("[/c]", crawlPaths(config, ""));
    EXPECT_EQ("=/w\n", volumes(loaded("<Volume><Name/><Root>/w</Root></Volume>")));
    EXPECT_EQ("=/x\n", volumes(loaded("<Volume><a><Name>deep</Name></a><name>low</name><Root>/x</Root></Volume>")));
}

TEST_F(HostFileVolumesTest, haveTheFirstOfTwoNames)
{
    EXPECT_EQ("a=/v\n", volumes(loaded("<Volume><Name>a</Name><Root>/v</Root><Name>b</Name></Volume>")));
    EXPECT_EQ("=/v\n", volumes(loaded("<Volume><Name/><Root>/v</Root><Name>b</Name></Volume>")));
}

TEST_F(HostFileVolumesTest, haveTheLastOfTwoRoots)
{
    EXPECT_EQ("a=/2\n", volumes(loaded("<Volume><Name>a</Name><Root>/1</Root><Root>/2</Root></Volume>")));
    EXPECT_EQ("a=/1\n", volumes(loaded("<Volume><Name>a</Name><Root>/1</Root><Root/></Volume>")));
}

TEST_F(HostFileVolumesTest, ofOneNameHaveTheLaterRootAndThePathsOfBoth)
{
    QuarrowConfig config
        = loaded("<Volume><Name>a</Name><Root>/1</Root><CrawlPaths><Path>/c1</Path></CrawlPaths>"
                 "<ExcludePaths><Path>/x1</Path></ExcludePaths></Volume>"
                 "<Volume><Name>b</Name><Root>/b</Root><CrawlPaths><Path>/cb</Path></CrawlPaths></Volume>"
                 "<Volume><Name>a</Name><Root>/2</Root><CrawlPaths><Path>/c0</Path></CrawlPaths>"
                 "<ExcludePaths><Path>/x0</Path></ExcludePaths></Volume>");
    EXPECT_EQ("a=/2\nb=/b\n", volumes(config));
    EXPECT_EQ("[/c1][/c0]", crawlPaths(config, "a"));
    EXPECT_EQ("[/x1][/x0]", excludePaths(config, "a"));
    EXPECT_EQ("[/cb]", crawlPaths(config, "b"));
}

TEST_F(HostFileVolumesTest, givePathsInFileOrder)
{
    QuarrowConfig config = loaded("<Volume><Name>a</Name><Root>/v</Root><CrawlPaths><Path>/z</Path><Path>/a</Path>"
                                  "<Path>/m</Path><Path>/a</Path></CrawlPaths><CrawlPaths><Path>/b</Path></CrawlPaths>"
                                  "<ExcludePaths><Path>z</Path><Path>a</Path></ExcludePaths></Volume>");
    EXPECT_EQ("[/z][/a][/m][/a][/b]", crawlPaths(config, "a"));
    EXPECT_EQ("[z][a]", excludePaths(config, "a"));
}

TEST_F(HostFileVolumesTest, giveNoPathsForAnUnknownName)
{
    QuarrowConfig config = loaded("<Volume><Name>a</Name><Root>/v</Root><CrawlPaths><Path>/c</Path></CrawlPaths>"
                                  "<ExcludePaths><Path>/x</Path></ExcludePaths></Volume>");
    for (const char* unknown : { "", "A", "a ", "aa", "/v" })
        EXPECT_EQ("", crawlPaths(config, unknown) + excludePaths(config, unknown)) << unknown;
}

TEST_F(HostFileVolumesTest, appendTheirPathsToTheList)
{
    QuarrowConfig config = loaded("<Volume><Name>a</Name><Root>/v</Root><CrawlPaths><Path>/a/</Path><Path>/b</Path>"
                                  "</CrawlPaths><ExcludePaths><Path>/x</Path></ExcludePaths></Volume>");
    std::list<std::string> paths;
    config.getCrawlPaths("a", paths);
    EXPECT_EQ("[/a][/b]", inBrackets(paths));
    config.getCrawlPaths("a", paths);
    EXPECT_EQ("[/a][/b][/a][/b]", inBrackets(paths));
    config.getExcludePaths("a", paths);
    config.getCrawlPaths("unknown", paths);
    EXPECT_EQ("[/a][/b][/a][/b][/x]", inBrackets(paths));
}

TEST_F(HostFileVolumesTest, haveOneSlashLessAtTheEndOfAPath)
{
    QuarrowConfig config
        = loaded("<Volume><Name>a</Name><Root>/v</Root><CrawlPaths><Path>/a/</Path><Path>/</Path>"
                 "<Path>/b//</Path><Path>/c/ </Path><Path>/d</Path></CrawlPaths>"
                 "<ExcludePaths><Path>/e/</Path><Path>//</Path><Path>f</Path></ExcludePaths></Volume>");
    EXPECT_EQ("[/a][][/b/][/c/ ][/d]", crawlPaths(config, "a"));
    EXPECT_EQ("[/e][/][f]", excludePaths(config, "a"));
}

TEST_F(HostFileVolumesTest, skipPathsWithoutText)
{
    QuarrowConfig config
        = loaded("<Volume><Name>a</Name><Root>/v</Root><CrawlPaths><Path/><Path></Path><Path><b>/b</b></Path>"
                 "<Path>/c</Path></CrawlPaths><ExcludePaths><Path/></ExcludePaths></Volume>");
    EXPECT_EQ("[/c]", crawlPaths(config, "a"));
    EXPECT_EQ("", excludePaths(config, "a"));
}

TEST_F(HostFileVolumesTest, takePathsOnlyRightInsideTheirLists)
{
    QuarrowConfig config = loaded("<Volume><Name>a</Name><Root>/v</Root><Path>/1</Path>"
                                  "<CrawlPaths><x><Path>/2</Path></x><path>/3</path><Path>/c</Path></CrawlPaths>"
                                  "<x><CrawlPaths><Path>/4</Path></CrawlPaths></x>"
                                  "<ExcludePaths><Path>/x</Path></ExcludePaths></Volume>"
                                  "<CrawlPaths><Path>/5</Path></CrawlPaths>");
    EXPECT_EQ("[/c]", crawlPaths(config, "a"));
    EXPECT_EQ("[/x]", excludePaths(config, "a"));
    EXPECT_EQ("", crawlPaths(config, "") + excludePaths(config, ""));
}

TEST_F(HostFileVolumesTest, maySitOutsideVolumesForTheirPathsThoughNotForTheirRoot)
{
    writeWith("<Volume><Name>a</Name><Root>/v</Root></Volume>", "<Version>1</Version>",
        "<last_updated_time>1</last_updated_time>",
        "<Volume><Name>a</Name><Root>/w</Root><CrawlPaths><Path>/c</Path></CrawlPaths>"
        "<ExcludePaths><Path>/x</Path></ExcludePaths></Volume>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("a=/v\n", volumes(config));
    EXPECT_EQ("[/c]", crawlPaths(config, "a"));
    EXPECT_EQ("[/x]", excludePaths(config, "a"));
}

TEST_F(HostFileVolumesTest, mayHaveNamesAndPathsThatXmlMustEscape)
{
    QuarrowConfig config = loaded("<Volume><Name>R&amp;B &lt;live&gt;</Name><Root><![CDATA[/mnt/<a>&b]]></Root>"
                                  "<CrawlPaths><Path>/caf&#233;/&#x41;&amp;B/</Path></CrawlPaths></Volume>");
    EXPECT_EQ("R&B <live>=/mnt/<a>&b\n", volumes(config));
    EXPECT_EQ("[/café/A&B]", crawlPaths(config, "R&B <live>"));
}

TEST_F(HostFileVolumesTest, mayComeInAnotherEncoding)
{
    write("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><c><Version>1</Version><last_updated_time>1"
          "</last_updated_time><Volumes><Volume><Name>a</Name><Root>/caf\xe9</Root></Volume></Volumes></c>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("a=/café\n", volumes(config));
}

TEST_F(HostFileVolumesTest, mayBeMany)
{
    std::string text;
    std::string expected;
    for (int i = 10000; i < 11000; ++i) {
        text += "<Volume><Name>" + std::to_string(i) + "</Name><Root>/v" + std::to_string(i) + "</Root></Volume>";
        expected += std::to_string(i) + "=/v" + std::to_string(i) + "\n";
    }
    EXPECT_EQ(expected, volumes(loaded(text)));
}

TEST_F(HostFileVolumesTest, haveTheFirstChildOfAnElementAsItsValue)
{
    write("<!DOCTYPE c [<!ENTITY e \"/e\">]><c><Version>1</Version><last_updated_time>1</last_updated_time><Volumes>"
          "<Volume><Name>a</Name><Root>/a<!-- c -->/b</Root></Volume>"
          "<Volume><Name><!--b-->c</Name><Root>/a<![CDATA[/b]]></Root></Volume>"
          "<Volume><Name>c</Name><Root>/a&e;/b</Root></Volume><Volume><Name>d</Name><Root>&e;/b</Root></Volume>"
          "<Volume><Name>e</Name><Root>/a<b>/b</b>/c</Root></Volume></Volumes></c>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("a=/a\nb=/a\nc=/a\nd=/e\ne=/a\n", volumes(config));
}

} // namespace
