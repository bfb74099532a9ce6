#include "CheckTest.h"

#include <libxml/parser.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

namespace {

using CheckRefusalsTest = CheckTest;

constexpr const char* addVersion
    = "There is no <Version> with a text. Write <Version>1.0</Version> into the root element.\n";
constexpr const char* addTime
    = "There is no <last_updated_time> with a text. Write <last_updated_time>1</last_updated_time>"
      " into the root element.\n";
constexpr const char* otherTime = "Write the time in seconds since 1970 into it, or any number but 0.\n";
constexpr const char* otherThreshold
    = "Write how many seconds deleted rows are kept at least, such as 5184000, or remove it.\n";
constexpr const char* addVolume
    = "There is no volume: no <Root> with a text in a <Volume> in <Volumes>. Write <Volumes><Volume><Name>media</Name>"
      "<Root>/srv/media</Root></Volume></Volumes>, with your own paths, into the root element.\n";
constexpr const char* nameAnother = "Name another one, as the argument, with --config or by QUARROW_CONFIG_FILE.\n";
constexpr const char* correct = "Correct it; 'xmllint --noout FILE' shows the place in the line.\n";
constexpr const char* time = "<last_updated_time>1</last_updated_time>";

std::string complete(const std::string& version, const std::string& settings, const std::string& volumes)
{
    return "<Q>\n" + version + "\n" + settings + "\n" + volumes + "</Q>";
}

TEST_F(CheckRefusalsTest, nothingIsSaidOfAGoodConfiguration) { EXPECT_EQ("", check(withSettings(""))); }

TEST_F(CheckRefusalsTest, aVersionIsRequired)
{
    const std::string volumes = std::string("<Volumes>") + goodVolume + "</Volumes>";
    EXPECT_EQ(std::string("refused: ") + addVersion, check(complete("", time, volumes)));
    EXPECT_EQ(std::string("refused: ") + addVersion
            + "2: warning: <Version> is empty, which counts as absent. Give it a value, or remove it.\n",
        check(complete("<Version/>", time, volumes)));
    EXPECT_EQ(std::string("2: refused: ") + addVersion
            + "2: warning: The comment takes the place of the value of <Version>: the daemon reads ''. Write the value as"
              " text, and comments outside.\n",
        check(complete("<Version><!----></Version>", time, volumes)));
}

TEST_F(CheckRefusalsTest, aTimeOtherThanZeroIsRequired)
{
    const std::string version = "<Version>1</Version>";
    const std::string volumes = std::string("<Volumes>") + goodVolume + "</Volumes>";
    EXPECT_EQ(std::string("refused: ") + addTime, check(complete(version, "", volumes)));
    EXPECT_EQ(std::string("3: refused: <last_updated_time> is 0. ") + otherTime,
        check(complete(version, "<last_updated_time>0</last_updated_time>", volumes)));
    EXPECT_EQ(std::string("3: refused: <last_updated_time> is 'soon', which is no number. The daemon reads it as 0. ")
            + otherTime,
        check(complete(version, "<last_updated_time>soon</last_updated_time>", volumes)));
    EXPECT_EQ(std::string("3: refused: <last_updated_time> is '4294967296', which does not fit into 32 bits. The daemon"
                          " reads it as 0. ")
            + otherTime,
        check(complete(version, "<last_updated_time>4294967296</last_updated_time>", volumes)));
}

TEST_F(CheckRefusalsTest, aPurgeThresholdOfZeroIsRefusedByItsLine)
{
    EXPECT_EQ(std::string("2: refused: <purge_threshold> is 0. ") + otherThreshold,
        check(withSettings("<purge_threshold>0</purge_threshold>")));
    EXPECT_EQ(std::string("3: refused: <purge_threshold> is 'x7', which is no number. The daemon reads it as 0. ")
            + otherThreshold
            + "3: warning: <purge_threshold> stands a second time, after line 2. This one counts, not the earlier. Remove one"
              " of them.\n",
        check(withSettings("<purge_threshold>5</purge_threshold>\n<purge_threshold>x7</purge_threshold>")));
}

TEST_F(CheckRefusalsTest, aVolumeIsRequired)
{
    const std::string version = "<Version>1</Version>";
    EXPECT_EQ(std::string("refused: ") + addVolume, check(complete(version, time, "<Volumes></Volumes>")));
    EXPECT_EQ(std::string("refused: ") + addVolume
            + "4: warning: The volume 'a' has no <Root>, so it is no volume. Write the absolute path of its root folder into"
              " a <Root>, or remove the volume.\n",
        check(complete(version, time, "<Volumes><Volume><Name>a</Name></Volume></Volumes>")));
    EXPECT_EQ(std::string("refused: ") + addVolume
            + "4: warning: <Root> stands in <Q>. It is not read there. Move it into <Volume>.\n",
        check(complete(version, time, "<Root>/a</Root>")));
}

TEST_F(CheckRefusalsTest, everyReasonIsGiven)
{
    EXPECT_EQ(std::string("refused: ") + addVersion + "refused: " + addTime + "refused: " + addVolume
            + "1: refused: <purge_threshold> is 0. " + otherThreshold,
        check("<Q><purge_threshold>0</purge_threshold></Q>"));
}

TEST_F(CheckRefusalsTest, whatIsNoXmlIsRefusedInTheParsersWordsAndLine)
{
    EXPECT_EQ(std::string("1: refused: This is no XML: Document is empty. ") + correct, check(""));
    EXPECT_EQ(
        std::string("1: refused: This is no XML: Start tag expected, '<' not found. ") + correct, check("Version=1\n"));
    EXPECT_EQ(std::string("4: refused: This is no XML: Opening and ending tag mismatch: b line 3 and a. ") + correct,
        check("<a>\n\n<b>\n</a>\n</b>"));
    EXPECT_EQ(std::string("2: refused: This is no XML: Entity 'no' not defined. ") + correct, check("<a>\n&no;</a>"));
    EXPECT_EQ(std::string("2: refused: This is no XML: Extra content at the end of the document. ") + correct,
        check("<a/>\n<b/>"));
    EXPECT_EQ("", check(withSettings("")));
    EXPECT_EQ(nullptr, xmlStructuredError); // nothing of it is left in the library
}

TEST_F(CheckRefusalsTest, whatTheParserTakesWithAComplaintIsAWarning)
{
    EXPECT_EQ(
        "2: warning: The XML parser says: Namespace prefix q on x is not defined. Correct it, though the daemon reads"
        " the file.\n"
        "2: warning: The daemon knows no element <q:x> and passes over it. Remove it, or correct its name.\n",
        check(withSettings("<q:x/>")));
}

TEST_F(CheckRefusalsTest, theParsersOwnLimitsHold)
{
    std::string huge;
    huge.resize(11000000, 'y');
    EXPECT_EQ(std::string("1: refused: This is no XML: xmlSAX2Characters: huge text node. ") + correct,
        check("<a>" + huge + "</a>"));
    std::string deep;
    for (int i = 0; i < 300; ++i)
        deep += "<x>";
    EXPECT_NE(std::string::npos, check(deep).find("1: refused: This is no XML: Excessive depth in document"));
    std::string bomb = "<!DOCTYPE Q [<!ENTITY e0 \"lol\">";
    for (int i = 1; i < 12; ++i) {
        bomb += "<!ENTITY e" + std::to_string(i) + " \"";
        for (int j = 0; j < 10; ++j)
            bomb += "&e" + std::to_string(i - 1) + ";";
        bomb += "\">";
    }
    EXPECT_EQ(std::string("1: refused: This is no XML: Detected an entity reference loop. ") + correct,
        check(bomb + "]><Q>&e11;</Q>"));
}

TEST_F(CheckRefusalsTest, whatIsNoReadableFileIsRefusedWithTheReason)
{
    EXPECT_EQ(std::string("refused: It cannot be read: No such file or directory. ") + nameAnother, check());
    std::filesystem::create_symlink("host.xml", folder.path("host.xml"));
    EXPECT_EQ(std::string("refused: It cannot be read: Too many levels of symbolic links. ") + nameAnother, check());
    folder.remove("host.xml");
    folder.makeFolder("host.xml");
    EXPECT_EQ(std::string("refused: It cannot be read: Is a directory. ") + nameAnother, check());
    setenv("QUARROW_CONFIG_FILE", "", 1);
    EXPECT_EQ(std::string("QUARROW_CONFIG_FILE: refused: It is set, but empty. ") + nameAnother, check());
}

TEST_F(CheckRefusalsTest, whatIsNoFileIsNotWaitedFor)
{
    const std::string unchecked
        = "not checked: This is no regular file: reading it might never end, and takes from a pipe what is meant for the"
          " daemon. Write the configuration into a file.\n";
    ASSERT_EQ(0, mkfifo(folder.path("host.xml").c_str(), 0600));
    EXPECT_EQ(unchecked, check());
    for (const char* path :
        { "-", "http://localhost:1/host.xml", "/dev/zero", "file:///dev/zero", "/dev/%7aero", "file://host/x" }) {
        setenv("QUARROW_CONFIG_FILE", path, 1);
        EXPECT_EQ(path + std::string(": ") + unchecked, check());
    }
}

TEST_F(CheckRefusalsTest, anAddressOfAFileIsReadAsItsPath)
{
    folder.writeFile("a b.xml", replaced(withSettings(""), "DIR", folder.path()));
    folder.writeFile("other.xml", "<Q/>");
    for (const char* const prefix : { "", "file:", "file://", "FILE://", "file://localhost" }) {
        for (const char* const name : { "/a b.xml", "/a%20b.xml" }) {
            setenv("QUARROW_CONFIG_FILE", (prefix + folder.path() + name).c_str(), 1);
            EXPECT_EQ("", check()) << prefix << name;
        }
        setenv("QUARROW_CONFIG_FILE", (prefix + folder.path() + "/other.xml").c_str(), 1);
        EXPECT_NE(std::string::npos, check().find("refused: There is no <Version>")) << prefix;
        setenv("QUARROW_CONFIG_FILE", (prefix + folder.path()).c_str(), 1);
        EXPECT_NE(std::string::npos, check().find("refused: It cannot be read: Is a directory")) << prefix;
    }
}

TEST_F(CheckRefusalsTest, moreFaultsThanAnybodyReadsAreCounted)
{
    std::string many;
    for (int i = 0; i < 50000; ++i)
        many += "<x>y</x>";
    folder.writeFile("host.xml", replaced(withSettings(many), "DIR", folder.path()));
    const ConfigurationCheck done(machine);
    EXPECT_TRUE(done.isAccepted());
    EXPECT_EQ(1000U, done.findings().list().size());
    EXPECT_EQ(49000U, done.findings().omitted());
    // A refusal is not among those that are left out.
    EXPECT_EQ(0U, check("<Q>" + many + "</Q>").find("refused: "));
}

/// Replaces the configuration when it is opened for the second time.
class ChangeMeanwhile {
public:
    explicit ChangeMeanwhile(const std::string& text)
    {
        other = text;
        timesOpened = 0;
        usualLoader = xmlGetExternalEntityLoader();
        xmlSetExternalEntityLoader(load);
    }
    ~ChangeMeanwhile() { xmlSetExternalEntityLoader(usualLoader); }
    ChangeMeanwhile(const ChangeMeanwhile&) = delete;
    ChangeMeanwhile& operator=(const ChangeMeanwhile&) = delete;

private:
    static xmlParserInputPtr load(const char* url, const char* id, xmlParserCtxtPtr context)
    {
        if (++timesOpened == 2)
            std::ofstream(url, std::ios::trunc) << other;
        return usualLoader(url, id, context);
    }

    static inline xmlExternalEntityLoader usualLoader;
    static inline int timesOpened;
    static inline std::string other;
};

TEST_F(CheckRefusalsTest, aFileThatIsChangedMeanwhileIsNotChecked)
{
    const std::string good = withSettings("<purge_threshold>7</purge_threshold>");
    folder.writeFile("host.xml", good);
    for (const std::string& other : { std::string(), std::string("<Q/>"), replaced(good, "7", "8"),
             replaced(good, "DIR/v", "/w"), replaced(good, "media", "other"), replaced(good, ".quarrow", "x"),
             replaced(good, "</Root>", "</Root><CrawlPaths><Path>/x</Path></CrawlPaths>"),
             replaced(good, "</Volumes>", "<Volume><Name>b</Name><Root>/b</Root></Volume></Volumes>") }) {
        folder.writeFile("host.xml", good);
        const ChangeMeanwhile change(other);
        const ConfigurationCheck done(machine);
        EXPECT_FALSE(done.isConsistent()) << other;
        EXPECT_FALSE(done.isAccepted()) << other;
        ASSERT_EQ(1U, done.findings().list().size()) << other;
        EXPECT_FALSE(done.isChecked()) << other;
        EXPECT_EQ("The file was changed while it was read", done.findings().list()[0].reason) << other;
    }
}

// What explains a refusal is other code than what decides it. They are to agree on anything.

std::vector<std::string> corpus()
{
    std::vector<std::string> texts;
    for (const auto& entry : std::filesystem::directory_iterator(QUARROW_FUZZ_CORPUS)) {
        std::ifstream file(entry.path(), std::ios::binary);
        texts.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    return texts;
}

TEST_F(CheckRefusalsTest, explanationAndDaemonAgreeOnEveryKnownInput)
{
    ASSERT_LE(8U, corpus().size());
    for (const std::string& text : corpus())
        check(text); // which expects it
}

TEST_F(CheckRefusalsTest, explanationAndDaemonAgreeOnInputsThatLackAPiece)
{
    machine.mimeTable = "/dev/null";
    int accepted = 0;
    int refused = 0;
    for (const std::string& text : corpus()) {
        for (std::size_t from = text.find('<'); from < text.length(); from = text.find('<', from + 1)) {
            for (std::size_t to = text.find('>', from); to < text.length(); to = text.find('>', to + 1)) {
                const std::string found = check(text.substr(0, from) + text.substr(to + 1));
                ++(found.find("refused: ") == std::string::npos ? accepted : refused);
            }
        }
    }
    EXPECT_LT(50, accepted);
    EXPECT_LT(500, refused);
}

} // namespace
