#include "config/HostFileTest.h"

namespace {

using QuarrowConfigTest = HostFileTest;

constexpr const char* oneVolume = "<Volume><Name>one</Name><Root>/v1</Root></Volume>";

TEST_F(QuarrowConfigTest, isReadWhole)
{
    write(R"(<?xml version="1.0" encoding="UTF-8"?>
<Quarrow>
  <Version>1.0</Version>
  <last_updated_time>1700000000</last_updated_time>
  <quarrow_enabled>true</quarrow_enabled>
  <purge_threshold>86400</purge_threshold>
  <rewalk_threshold>7200</rewalk_threshold>
  <Volumes>
    <Volume>
      <Name>photos</Name>
      <Root>/mnt/photos/</Root>
      <CrawlPaths>
        <Path>/Camera/</Path>
        <Path>/Scans</Path>
      </CrawlPaths>
      <ExcludePaths>
        <Path>/Camera/raw/</Path>
        <Path>.git</Path>
      </ExcludePaths>
    </Volume>
    <Volume>
      <Root>/mnt/films</Root>
      <Name>films</Name>
    </Volume>
  </Volumes>
</Quarrow>
)");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("films=/mnt/films\nphotos=/mnt/photos/\n", volumes(config)); // a root keeps its slash
    EXPECT_EQ("[/Camera][/Scans]", crawlPaths(config, "photos"));
    EXPECT_EQ("[/Camera/raw][.git]", excludePaths(config, "photos"));
    EXPECT_EQ("", crawlPaths(config, "films") + excludePaths(config, "films"));
    EXPECT_EQ(86400, config.getPurgeThreshold());
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(QuarrowConfigTest, mayHaveARootElementOfAnyName)
{
    for (const std::string& root : { std::string("anything"), std::string("Volume"), std::string("Version") }) {
        write("<" + root + "><Version>1</Version><last_updated_time>1</last_updated_time><Volumes>" + oneVolume
            + "</Volumes></" + root + ">");
        EXPECT_TRUE(QuarrowConfig().load()) << root;
    }
}

TEST_F(QuarrowConfigTest, mayHoldItsSettingsAtAnyDepthAndInAnyOrder)
{
    write("<a><b><Volumes>" + std::string(oneVolume)
        + "</Volumes><c><d><Version>1</Version></d></c></b><purge_threshold>5<last_updated_time>7</last_updated_time>"
          "</purge_threshold></a>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ(5, config.getPurgeThreshold());
    EXPECT_EQ("one=/v1\n", volumes(config));
}

TEST_F(QuarrowConfigTest, mayHoldSettingsInTheRootElementItself)
{
    write("<Version>1.0<last_updated_time>1</last_updated_time><Volumes>" + std::string(oneVolume)
        + "</Volumes></Version>");
    EXPECT_TRUE(QuarrowConfig().load());
}

TEST_F(QuarrowConfigTest, mayHoldWhatNobodyKnows)
{
    write("<!DOCTYPE c><?pi x?><!-- <Volumes/> --><c Version=\"2\"><!-- hm --><Unknown x=\"y\">text<!-- c --></Unknown>"
          "<Version lang=\"en\">1</Version><last_updated_time>1</last_updated_time>text"
          "<Volumes><!-- a --><Volume name=\"other\"><!-- b --><Odd><Name>inner</Name></Odd><Name>one</Name>"
          "<Root>/v1</Root><CrawlPaths><!-- c --><Other>/x</Other><Path>/a</Path></CrawlPaths></Volume></Volumes></c>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("one=/v1\n", volumes(config));
    EXPECT_EQ("[/a]", crawlPaths(config, "one"));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(QuarrowConfigTest, isRejectedWithoutAVersion)
{
    for (const std::string version : { "", "<Version/>", "<Version></Version>", "<version>1</version>" }) {
        writeWith(oneVolume, version);
        EXPECT_FALSE(QuarrowConfig().load()) << version;
    }
    EXPECT_TRUE(loggedLines().empty()); // the caller says it
    writeWith(oneVolume, "<Version>anything at all</Version>");
    EXPECT_TRUE(QuarrowConfig().load());
}

TEST_F(QuarrowConfigTest, isRejectedWithoutALastUpdateTime)
{
    for (const std::string text : { "0", "", "no number", " ", "+0x", "-0" }) {
        writeWith(oneVolume, "<Version>1</Version>", "<last_updated_time>" + text + "</last_updated_time>");
        EXPECT_FALSE(QuarrowConfig().load()) << text;
    }
    writeWith(oneVolume, "<Version>1</Version>", "");
    EXPECT_FALSE(QuarrowConfig().load());
    EXPECT_TRUE(loggedLines().empty());
    for (const std::string text : { "1", " \n12", "-3", "4x", "5.9" }) {
        writeWith(oneVolume, "<Version>1</Version>", "<last_updated_time>" + text + "</last_updated_time>");
        EXPECT_TRUE(QuarrowConfig().load()) << text;
    }
}

TEST_F(QuarrowConfigTest, givesThePurgeThresholdInSeconds)
{
    const auto thresholdOf = [&](const std::string& element) {
        writeWith(oneVolume, "<Version>1</Version>", "<last_updated_time>1</last_updated_time>", element);
        QuarrowConfig config;
        const bool loaded = config.load();
        return std::to_string(config.getPurgeThreshold()) + (loaded ? "" : " rejected");
    };
    EXPECT_EQ("5184000", thresholdOf(""));
    EXPECT_EQ("5184000", thresholdOf("<purge_threshold/>"));
    EXPECT_EQ("77", thresholdOf("<purge_threshold>77</purge_threshold>"));
    EXPECT_EQ("77", thresholdOf("<purge_threshold> \t\n77 days</purge_threshold>"));
    EXPECT_EQ("-5", thresholdOf("<purge_threshold>-5</purge_threshold>"));
    EXPECT_EQ("2147483647", thresholdOf("<purge_threshold>2147483647</purge_threshold>"));
    EXPECT_EQ("0 rejected", thresholdOf("<purge_threshold>0</purge_threshold>"));
    EXPECT_EQ("0 rejected", thresholdOf("<purge_threshold>sixty</purge_threshold>"));
    EXPECT_EQ("0 rejected", thresholdOf("<purge_threshold>0x10</purge_threshold>"));
    EXPECT_EQ("9", thresholdOf("<purge_threshold>0</purge_threshold><purge_threshold>9</purge_threshold>"));
    EXPECT_EQ("0 rejected", thresholdOf("<purge_threshold>9</purge_threshold><purge_threshold>0</purge_threshold>"));
    EXPECT_EQ("9", thresholdOf("<purge_threshold>9</purge_threshold><purge_threshold/>"));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(QuarrowConfigTest, hasTheDefaultThresholdAndNoVolumesBeforeItIsRead)
{
    QuarrowConfig config;
    EXPECT_EQ(5184000, config.getPurgeThreshold());
    EXPECT_EQ("", volumes(config) + crawlPaths(config, "") + excludePaths(config, ""));
}

TEST_F(QuarrowConfigTest, mayHoldSwitchAndRewalkThresholdWhateverTheySay)
{
    for (const std::string text : { "true", "yes", "TRUE", "false", "0", "" }) {
        writeWith(oneVolume, "<Version>1</Version>", "<last_updated_time>1</last_updated_time>",
            "<quarrow_enabled>" + text + "</quarrow_enabled><rewalk_threshold>" + text + "</rewalk_threshold>");
        QuarrowConfig config;
        EXPECT_TRUE(config.load()) << text;
        EXPECT_EQ(5184000, config.getPurgeThreshold()) << text;
    }
}

TEST_F(QuarrowConfigTest, isRejectedWithoutAVolume)
{
    for (const std::string content : { "", "<Volume/>", "<Volume><Name>one</Name></Volume>",
             "<Volume><Name>one</Name><Root/></Volume>", "<Volume><Name>one</Name><Root></Root></Volume>",
             "<Volume><x><Root>/v1</Root></x></Volume>", "<Root>/v1</Root>", "<volume><Root>/v1</Root></volume>" }) {
        writeWith(content);
        QuarrowConfig config;
        EXPECT_FALSE(config.load()) << content;
        EXPECT_EQ("", volumes(config)) << content;
    }
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(QuarrowConfigTest, takesARootOnlyInAVolumeInsideVolumes)
{
    write("<c><Version>1</Version><last_updated_time>1</last_updated_time><Root>/a</Root>"
          "<Volume><Name>b</Name><Root>/b</Root></Volume>"
          "<Volumes><More><Volume><Name>c</Name><Root>/c</Root></Volume></More></Volumes></c>");
    QuarrowConfig config;
    EXPECT_FALSE(config.load());
    EXPECT_EQ("", volumes(config));
    EXPECT_TRUE(loggedLines().empty());
    write("<Volume><Name>d</Name><Root>/d</Root></Volume>");
    EXPECT_FALSE(config.load());
    EXPECT_EQ("", volumes(config));
}

TEST_F(QuarrowConfigTest, isRejectedWhenItIsNotXml)
{
    for (const std::string content : { "", "  \n", "text", "<a>", "<a></b>", "<a/><b/>", "<a b=c/>", "<a>&no;</a>",
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?><a>\xff</a>" }) {
        clearLog();
        write(content);
        EXPECT_FALSE(QuarrowConfig().load()) << content;
        EXPECT_EQ(parseFailure(), loggedLines()) << content;
    }
}

TEST_F(QuarrowConfigTest, keepsNothingOfAFileThatBreaksHalfWay)
{
    writeWith(oneVolume);
    write(folder.readFile("host.xml") + "<");
    QuarrowConfig config;
    EXPECT_FALSE(config.load());
    EXPECT_EQ("", volumes(config));
    EXPECT_EQ(parseFailure(), loggedLines());
}

TEST_F(QuarrowConfigTest, isReadAgainOnTopOfWhatWasRead)
{
    writeWith("<Volume><Name>one</Name><Root>/v1</Root><CrawlPaths><Path>/a</Path></CrawlPaths></Volume>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    writeWith("<Volume><Name>one</Name><Root>/v2</Root><CrawlPaths><Path>/b</Path></CrawlPaths></Volume>"
              "<Volume><Name>two</Name><Root>/w</Root></Volume>",
        "", "");
    EXPECT_TRUE(config.load()); // version and time are still those of the first time
    EXPECT_EQ("one=/v2\ntwo=/w\n", volumes(config));
    EXPECT_EQ("[/a][/b]", crawlPaths(config, "one"));
}

TEST_F(QuarrowConfigTest, takesNothingFromOtherFiles)
{
    folder.writeFile("root.txt", "/v1");
    folder.writeFile("host.dtd", "<!ENTITY r \"/v2\">");
    const std::string rest = "<c><Version>1</Version><last_updated_time>1</last_updated_time><Volumes><Volume>"
                             "<Name>one</Name><Root>&r;</Root></Volume></Volumes></c>";
    for (const std::string doctype :
        { "<!DOCTYPE c [<!ENTITY r SYSTEM \"root.txt\">]>", "<!DOCTYPE c SYSTEM \"host.dtd\">" }) {
        write(doctype + rest);
        QuarrowConfig config;
        EXPECT_FALSE(config.load()) << doctype;
        EXPECT_EQ("", volumes(config)) << doctype;
    }
}

TEST_F(QuarrowConfigTest, looksAtElementsAlone)
{
    write("<!DOCTYPE c [<!ENTITY Name \"entity\">]><c><?Version 1?><Version>1</Version>"
          "<last_updated_time>1</last_updated_time><Volumes><Volume><?Name pi?>&Name;<Name>one</Name><?Root /pi?>"
          "<Root>/v1</Root></Volume></Volumes></c>");
    QuarrowConfig config;
    EXPECT_TRUE(config.load());
    EXPECT_EQ("one=/v1\n", volumes(config));
}

TEST_F(QuarrowConfigTest, mayHaveEntitiesInsideEntities)
{
    write(
        "<!DOCTYPE c [<!ENTITY a \"<x>1</x>\"><!ENTITY b \"<y>&a;</y>\">]><c>&a;&b;<Version>1</Version>"
        "<last_updated_time>1</last_updated_time><Volumes><Volume><Name>one</Name><Root>/v1</Root></Volume></Volumes></c>");
    EXPECT_TRUE(QuarrowConfig().load());
}

} // namespace
