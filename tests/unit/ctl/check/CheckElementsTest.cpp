#include "CheckTest.h"

namespace {

using CheckElementsTest = CheckTest;

constexpr const char* passedOver = " and passes over it. Remove it, or correct its name.\n";

TEST_F(CheckElementsTest, unknownElementsAreToldOfOnce)
{
    EXPECT_EQ(std::string("2: warning: The daemon knows no element <note>") + passedOver,
        check(withSettings("<note><more><more/></more><Name>x</Name><Root>/x</Root></note>")));
}

TEST_F(CheckElementsTest, aMisspeltElementIsRecognised)
{
    const auto didYouMean = [](const std::string& wrong, const std::string& right) {
        return "6: warning: The daemon knows no element <" + wrong + "> and passes over it. Did you mean <" + right
            + ">? Upper and lower case differ.\n";
    };
    const std::string rest = "<Name>a</Name><Root>DIR/v</Root><ExcludePaths><Path>/.quarrow</Path></ExcludePaths>\n";
    EXPECT_EQ(didYouMean("crawlpaths", "CrawlPaths"), checkVolume(rest + "<crawlpaths><Path>/a</Path></crawlpaths>"));
    EXPECT_EQ(didYouMean("ExcludePath", "ExcludePaths"), checkVolume(rest + "<ExcludePath/>"));
    EXPECT_EQ(didYouMean("root", "Root"), checkVolume(rest + "<root>/x</root>"));
    EXPECT_EQ(
        std::string("6: warning: The daemon knows no element <Rename>") + passedOver, checkVolume(rest + "<Rename/>"));
}

TEST_F(CheckElementsTest, settingsCountWhereverTheyStand)
{
    EXPECT_EQ(
        "4: warning: <purge_threshold> stands in <Volumes>. The daemon reads it all the same. Move it into the root"
        " element.\n",
        check(withVolumes("<purge_threshold>7</purge_threshold>" + std::string(goodVolume))));
    EXPECT_EQ(
        "2: warning: The daemon knows no element <extra> and passes over it. Remove it, or correct its name.\n"
        "2: warning: <rewalk_threshold> stands in <extra>. The daemon reads it all the same. Move it into the root"
        " element.\n",
        check(withSettings("<extra><rewalk_threshold>7</rewalk_threshold></extra>")));
}

TEST_F(CheckElementsTest, volumesAndTheirElementsOutOfPlace)
{
    EXPECT_EQ(
        "2: warning: <Volume> stands in <Q>. It is no volume there. Move it into <Volumes>.\n"
        "2: warning: The volume 'x' has no <Root>, so it is no volume. Write the absolute path of its root folder into"
        " a <Root>, or remove the volume.\n",
        check(withSettings("<Volume><Name>x</Name><Root>/x</Root></Volume>")));
    EXPECT_EQ("2: warning: <CrawlPaths> stands in <Q>. It is not read there. Move it into <Volume>.\n"
              "3: warning: <Path> stands in <Q>. It is not read there. Move it into <CrawlPaths> or <ExcludePaths>.\n"
              "4: warning: <Name> stands in <Q>. It is not read there. Move it into <Volume>.\n",
        check(withSettings("<CrawlPaths><Path>/a</Path></CrawlPaths>\n<Path>/a</Path>\n<Name>x</Name>")));
    EXPECT_EQ("1: warning: The daemon knows no element <x> and passes over it. Remove it, or correct its name.\n"
              "1: warning: <Volumes> stands in <x>. The daemon reads it all the same. Move it into the root element.\n",
        check("<Q><Version>1</Version><last_updated_time>1</last_updated_time><x><Volumes>" + std::string(goodVolume)
            + "</Volumes></x></Q>"));
}

TEST_F(CheckElementsTest, attributesAreNotRead)
{
    EXPECT_EQ("5: warning: The attribute 'Name' of <Root> is not read. Write it as an element of its own.\n",
        checkVolume("<Name>a</Name><Root Name='b'>DIR/v</Root><ExcludePaths><Path>/.quarrow</Path></ExcludePaths>"));
    EXPECT_EQ("",
        check("<Q version='2' xmlns:x='urn:x'><Version x:y='z'>1</Version><last_updated_time>1</last_updated_time>"
              "<Volumes>"
            + std::string(goodVolume) + "</Volumes></Q>"));
}

TEST_F(CheckElementsTest, textBetweenElementsIsNotRead)
{
    EXPECT_EQ(
        "5: warning: The text '/.quarrow' in <ExcludePaths> is not read. Put it into a <Path>.\n"
        "5: warning: The volume 'a' is catalogued whole, without the exclusion '/.quarrow'. The daemon catalogues and"
        " watches its own catalogue, and programs that open it delay the changes of all volumes. Write"
        " <ExcludePaths><Path>/.quarrow</Path></ExcludePaths> into it.\n",
        checkVolume("<Name>a</Name><Root>DIR/v</Root><ExcludePaths> /.quarrow </ExcludePaths>"));
    EXPECT_EQ("1: warning: The text '" + std::string(60, 'w')
            + "...' in <Q> is not read. Put it into the element that it belongs to.\n",
        check(withSettings(std::string(61, 'w'))));
}

TEST_F(CheckElementsTest, entitiesAreNotFollowed)
{
    EXPECT_EQ(
        "1: warning: The entity 'e' in <Q> is not followed. No element in it is read. Write its content in its place.\n",
        check("<!DOCTYPE Q [<!ENTITY e \"<Version>2</Version>\">]>" + withSettings("&e;")));
    EXPECT_EQ(
        "2: warning: The entity 'e' takes the place of the value of <Version>: the daemon reads '2'. Write the value as"
        " text, and comments outside.\n"
        "3: warning: <Version> stands a second time, after line 2. This one counts, not the earlier. Remove one of"
        " them.\n",
        check("<!DOCTYPE Q [<!ENTITY e \"2\">]>" + withSettings("<Version>&e;</Version>")));
}

// Values

TEST_F(CheckElementsTest, aValueIsCutByWhatStandsInIt)
{
    const auto cut = [](const std::string& what) {
        return "5: warning: The value of <Root> ends before the " + what
            + " in it: the daemon reads 'DIR/v'. Write the whole value as one text.\n";
    };
    const auto root = [this](const std::string& value) {
        return checkVolume(
            "<Name>a</Name><Root>" + value + "</Root><ExcludePaths><Path>/.quarrow</Path></ExcludePaths>");
    };
    EXPECT_EQ(cut("comment"), root("DIR/v<!-- x -->ideo"));
    EXPECT_EQ(cut("CDATA section"), root("DIR/v<![CDATA[ideo]]>"));
    EXPECT_EQ(cut("processing instruction"), root("DIR/v<?x?>ideo"));
    EXPECT_EQ(cut("element <b>"), root("DIR/v<b>ideo</b>"));
    EXPECT_EQ("", root("DIR/v<!-- x -->"));
    EXPECT_EQ("", root("<![CDATA[DIR/v]]>"));
}

TEST_F(CheckElementsTest, somethingElseInPlaceOfAValue)
{
    EXPECT_EQ(
        "2: warning: The comment takes the place of the value of <rewalk_threshold>: the daemon reads '7'. Write the"
        " value as text, and comments outside.\n",
        check(withSettings("<rewalk_threshold><!--7-->8</rewalk_threshold>")));
    EXPECT_EQ(
        "2: warning: <rewalk_threshold> begins with the element <b>, so it has no text and counts as absent. Write its"
        " value as text.\n",
        check(withSettings("<rewalk_threshold><b>7</b></rewalk_threshold>")));
    EXPECT_EQ("2: warning: <purge_threshold> is empty, which counts as absent. Give it a value, or remove it.\n",
        check(withSettings("<purge_threshold/>")));
}

TEST_F(CheckElementsTest, anEmptyElementDoesNotReplaceAnEarlierOne)
{
    EXPECT_EQ("2: warning: <purge_threshold> is empty, which counts as absent. Give it a value, or remove it.\n",
        check(withSettings("<purge_threshold>7</purge_threshold><purge_threshold/>")));
}

TEST_F(CheckElementsTest, blanksAroundAValueBelongToIt)
{
    EXPECT_EQ(
        "5: warning: The value of <Name> has blanks or line ends around it, which belong to it: ' a'. Write the value"
        " without them, between the tags on one line.\n"
        "6: warning: The value of <Path> has blanks or line ends around it, which belong to it: '/.quarrow\n'. Write the"
        " value without them, between the tags on one line.\n",
        checkVolume(
            "<Name> a</Name><Root>DIR/v</Root>\n<ExcludePaths><Path>/.quarrow\n</Path><Path>/.</Path></ExcludePaths>"));
    EXPECT_EQ("", check(withSettings("<purge_threshold>\n 7 \n</purge_threshold>"))); // a number may have them
}

TEST_F(CheckElementsTest, ofTwoNamesTheFirstCountsAndOfTwoRootsTheSecond)
{
    EXPECT_EQ(
        "6: warning: <Root> stands a second time in its volume, after line 5. This one counts, not the earlier. Give"
        " each <Root> a <Volume> of its own, or remove one of them.\n"
        "7: warning: <Name> stands a second time in its volume, after line 5. The first one counts, not this one. Give"
        " each <Name> a <Volume> of its own, or remove one of them.\n",
        checkVolume("<Name>a</Name><Root>/nowhere</Root>\n<Root>DIR/v</Root>\n<Name>b</Name>"
                    "<ExcludePaths><Path>/.quarrow</Path></ExcludePaths>"));
}

// Settings

TEST_F(CheckElementsTest, numbersThatAreReadOtherwiseThanTheyLook)
{
    const auto readAs = [](const std::string& name, const std::string& fault, const std::string& number) {
        return "2: warning: <" + name + "> is " + fault + ". The daemon reads it as " + number
            + ". Write digits alone, for a number up to 2147483647.\n";
    };
    EXPECT_EQ(readAs("purge_threshold", "'60 days', which is no number", "60"),
        check(withSettings("<purge_threshold>60 days</purge_threshold>")));
    EXPECT_EQ(readAs("purge_threshold", "'4294967297', which does not fit into 32 bits", "1"),
        check(withSettings("<purge_threshold>4294967297</purge_threshold>")));
    EXPECT_EQ(readAs("rewalk_threshold", "'4h', which is no number", "4"),
        check(withSettings("<rewalk_threshold>4h</rewalk_threshold>")));
    EXPECT_EQ(readAs("rewalk_threshold", "'+', which is no number", "0"),
        check(withSettings("<rewalk_threshold>+</rewalk_threshold>")));
    EXPECT_EQ(replaced(readAs("last_updated_time", "'7x', which is no number", "7"), "2: ", "1: "),
        check("<Q><Version>1</Version><last_updated_time>7x</last_updated_time><Volumes>" + std::string(goodVolume)
            + "</Volumes></Q>"));
}

TEST_F(CheckElementsTest, aThresholdBelowZeroKeepsNoDeletedRow)
{
    EXPECT_EQ(
        "2: warning: <purge_threshold> is below 0: every purge removes all deleted rows at once, before their readers"
        " see them. Write how many seconds they are kept at least, such as 5184000.\n",
        check(withSettings("<purge_threshold>-1</purge_threshold>")));
}

TEST_F(CheckElementsTest, theSwitchSwitchesNothing)
{
    EXPECT_EQ("", check(withSettings("<quarrow_enabled>true</quarrow_enabled>")));
    EXPECT_EQ(
        "2: warning: <quarrow_enabled> is 'false', which has no effect: the daemon catalogues all the same. To switch"
        " the daemon off, do not start it.\n",
        check(withSettings("<quarrow_enabled>false</quarrow_enabled>")));
}

} // namespace
