#include "classify/MimeTypeMapper.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <list>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

/// One line of the table that is neither blank nor a comment.
struct Entry {
    int line;
    std::string type;
    std::list<std::string> extensions;
};

/// The table that is shipped, read by a stricter reader than the daemon's own: the daemon skips what it does not
/// understand in silence, so a slip in the file would show only as photos that nobody finds.
class MimeTypesFileTest : public ::testing::Test {
protected:
    MimeTypesFileTest()
    {
        std::ifstream file(QUARROW_MIME_TABLE, std::ios::binary);
        readable = file.is_open();
        text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
        // No '#' after the type, no tab, no carriage return, nothing behind the last extension.
        const std::regex wellFormed("[a-z]+/[A-Za-z0-9.+_-]+( +[A-Za-z0-9+_-]+)+");
        std::istringstream lines(text);
        std::string line;
        for (int number = 1; std::getline(lines, line); ++number) {
            if (line.empty() || line[0] == '#')
                continue;
            if (!std::regex_match(line, wellFormed)) {
                malformed.push_back(std::to_string(number) + ": " + line);
                continue;
            }
            std::istringstream words(line);
            Entry entry { number, {}, {} };
            words >> entry.type;
            entry.extensions.assign(std::istream_iterator<std::string>(words), std::istream_iterator<std::string>());
            for (const std::string& extension : entry.extensions)
                types.insert({ extension, entry.type });
            entries.push_back(entry);
        }
    }

    static std::string convert(std::string word, int (*to)(int))
    {
        for (char& c : word)
            c = static_cast<char>(to(c)); // words are ASCII: the reader takes no others
        return word;
    }

    static std::string lower(const std::string& word) { return convert(word, std::tolower); }
    static std::string upper(const std::string& word) { return convert(word, std::toupper); }
    static std::string capitalised(const std::string& word) { return upper(word.substr(0, 1)) + lower(word.substr(1)); }

    static std::string category(const std::string& type)
    {
        const std::string start = type.substr(0, 5);
        return start == "video" || start == "audio" || start == "image" ? start : "other";
    }

    /// "unlisted" for an extension that the table does not name.
    std::string typeOf(const std::string& extension) const
    {
        const auto found = types.find(extension);
        return found == types.end() ? "unlisted" : found->second;
    }

    /// "unlisted" is told from "other" here, although the daemon stores the same value for both.
    std::string categoryOf(const std::string& extension) const
    {
        return types.count(extension) == 0 ? "unlisted" : category(typeOf(extension));
    }

    /// How many extensions of the category there are when their spellings are counted once.
    std::size_t countDistinct(const std::string& wanted) const
    {
        std::set<std::string> distinct;
        for (const auto& [extension, type] : types)
            if (category(type) == wanted)
                distinct.insert(lower(extension));
        return distinct.size();
    }

    /// Every word of the list, in each spelling that a media extension must have.
    void expectMedia(const std::string& wanted, const std::string& list) const
    {
        std::istringstream words(list);
        for (std::string word; words >> word;)
            for (const std::string& spelling : { word, upper(word), capitalised(word) })
                EXPECT_EQ(wanted, categoryOf(spelling)) << spelling;
    }

    bool readable = false;
    std::string text;
    std::vector<std::string> malformed;       ///< number and text of each line that is not as it should be
    std::vector<Entry> entries;               ///< in file order
    std::map<std::string, std::string> types; ///< extension -> type, the first line wins
};

TEST_F(MimeTypesFileTest, isPlainTextThatEndsWithANewline)
{
    ASSERT_TRUE(readable) << QUARROW_MIME_TABLE;
    ASSERT_FALSE(text.empty());
    EXPECT_EQ('\n', text.back());
    const auto odd = std::find_if(text.begin(), text.end(), [](char c) { return c != '\n' && (c < ' ' || c > '~'); });
    EXPECT_EQ(text.end(), odd) << "at byte " << odd - text.begin();
}

TEST_F(MimeTypesFileTest, explainsItselfAtTheTop)
{
    const std::string header = text.substr(0, text.find("\n\n"));
    EXPECT_EQ(0U, header.find("# "));
    EXPECT_LE(5, std::count(header.begin(), header.end(), '\n'));
    for (const char* word : { "/usr/local/quarrow/mime_types.txt", "case-sensitive", "first line", "five letters" })
        EXPECT_NE(std::string::npos, header.find(word)) << word;
}

TEST_F(MimeTypesFileTest, hasOnlyWellFormedLines)
{
    EXPECT_FALSE(entries.empty());
    for (const std::string& line : malformed)
        ADD_FAILURE() << "line " << line;
}

TEST_F(MimeTypesFileTest, usesOnlyRegisteredTopLevelNames)
{
    // A slip such as "vidoe/mp4" would be well formed and turn the films of a household into "other".
    const std::set<std::string> known { "application", "audio", "font", "image", "message", "model", "text", "video" };
    for (const Entry& entry : entries)
        EXPECT_EQ(1U, known.count(entry.type.substr(0, entry.type.find('/')))) << "line " << entry.line;
}

TEST_F(MimeTypesFileTest, namesEachTypeOnOneLineOnly)
{
    std::map<std::string, int> lineOf;
    for (const Entry& entry : entries) {
        const auto [earlier, isNew] = lineOf.insert({ lower(entry.type), entry.line });
        EXPECT_TRUE(isNew) << entry.type << " on lines " << earlier->second << " and " << entry.line;
    }
}

TEST_F(MimeTypesFileTest, namesEachExtensionOnce)
{
    std::map<std::string, int> lineOf;
    for (const Entry& entry : entries)
        for (const std::string& extension : entry.extensions) {
            const auto [earlier, isNew] = lineOf.insert({ extension, entry.line });
            EXPECT_TRUE(isNew) << extension << " on lines " << earlier->second << " and " << entry.line;
        }
}

/// But MOD, the films of camcorders, which write their names in capitals; mod is a tracker module.
TEST_F(MimeTypesFileTest, givesAllSpellingsOfAnExtensionOneCategory)
{
    std::map<std::string, std::string> first;
    for (const auto& [extension, type] : types) {
        if (extension == "MOD")
            continue;
        const auto [known, isNew] = first.insert({ lower(extension), category(type) });
        EXPECT_EQ(known->second, category(type)) << extension;
    }
}

TEST_F(MimeTypesFileTest, listsMediaInLowerUpperAndCapitalisedSpelling)
{
    for (const auto& [extension, type] : types) {
        if (category(type) == "other" || lower(extension) == "mod")
            continue;
        for (const std::string& spelling : { lower(extension), upper(extension), capitalised(extension) })
            EXPECT_EQ(type, typeOf(spelling)) << spelling << ", because of " << extension;
    }
}

TEST_F(MimeTypesFileTest, coversWhatPeopleHave)
{
    EXPECT_LE(90U, countDistinct("video"));
    EXPECT_LE(90U, countDistinct("audio"));
    EXPECT_LE(120U, countDistinct("image"));
    EXPECT_LE(150U, countDistinct("other"));
}

TEST_F(MimeTypesFileTest, knowsVideos)
{
    expectMedia("video",
        "mp4 m4v mov qt avi divx mkv mk3d webm ogv ogm ogx mpg mpeg mpe m1v m2v vob vro ts m2ts mts m2t tp trp tod "
        "wmv asf wtv dvr-ms rm rmvb rv flv f4v 3gp 3gpp 3g2 dv mxf gxf mjpeg mjpg mj2 viv h264 264 hevc 265 av1 ivf "
        "y4m r3d braw crm lrv insv 360 dav mlv fli flc bik nsv amv mng m4s movie m4u rec osv");
    EXPECT_EQ("video", categoryOf("MOD"));
}

TEST_F(MimeTypesFileTest, knowsAudio)
{
    expectMedia("audio",
        "mp3 mp2 mpga m4a m4b m4p m4r aac ogg oga spx opus flac ape wv tta tak shn wav wave bwf w64 aif aiff aifc "
        "caf au snd wma ra ram ac3 eac3 ec3 ac4 dts dtshd thd truehd mlp dsf dff amr awb 3ga mka weba mid midi kar "
        "rmi smf xm s3m it stm mtm 669 mo3 sid nsf spc vgm m3u m3u8 pls xspf wpl cue asx aa aax mpc mp+ qcp gsm voc 8svx oma at3 "
        "ofr dss wax pcm f4a vqf imy aob gsf usf dvf msv a52 bw64");
    EXPECT_EQ("audio", categoryOf("mod"));
}

TEST_F(MimeTypesFileTest, knowsImages)
{
    expectMedia("image",
        "jpg jpeg jpe jfif png apng gif bmp tif tiff webp heic heics heif hif avif jxl jp2 j2k jpx jxr cr2 cr3 crw "
        "nef nrw arw srf sr2 dng orf rw2 raf pef srw x3f 3fr fff iiq mos mrw kdc dcr erf mef rwl raw bay gpr k25 "
        "arq ari mpo jps thm insp psd psb xcf ora svg svgz ico cur icns djvu djv pcx tga dds exr hdr dpx pnm pbm pgm "
        "ppm pam xbm xpm pcd pict sgi ilbm emf wmf cdr qoi wbmp fits fit nitf clip kra wmz eps ai");
}

TEST_F(MimeTypesFileTest, keepsWhatIsNotMediaApart)
{
    std::istringstream words("pdf PDF doc docx DOCX xls xlsx ppt pptx odt ods odp rtf txt TXT md html csv xml json "
                             "epub mobi azw3 fb2 cbz cbr srt SRT sub ass ssa vtt smi zip ZIP rar 7z tar gz bz2 "
                             "xz zst iso ISO img dmg exe EXE dll msi apk deb rpm jar ttf otf woff2 stl obj db "
                             "sqlite xmp nfo lrc torrent js py c cpp h sh php yaml swf mks eml ics vcf "
                             "ps key dat bin emz");
    for (std::string word; words >> word;)
        EXPECT_EQ("other", categoryOf(word)) << word;
}

TEST_F(MimeTypesFileTest, leavesOutWhatIsMostlySomethingElse)
{
    for (const char* extension : { "nim", "mdl", "fig", "cap", "sti" })
        for (const std::string& spelling : { std::string(extension), upper(extension), capitalised(extension) })
            EXPECT_EQ("unlisted", categoryOf(spelling)) << spelling;
}

TEST_F(MimeTypesFileTest, namesTheUsualTypes)
{
    std::istringstream usual("mp4 video/mp4 MOV video/quicktime mkv video/x-matroska webm video/webm "
                             "avi video/x-msvideo mpg video/mpeg vob video/mpeg MTS video/mp2t m2ts video/mp2t "
                             "ts video/mp2t ogv video/ogg wmv video/x-ms-wmv 3gp video/3gpp flv video/x-flv "
                             "rm video/vnd.rn-realvideo mp3 audio/mpeg m4a audio/mp4 flac audio/flac ogg audio/ogg "
                             "opus audio/opus wav audio/x-wav aiff audio/x-aiff mid audio/midi m3u8 audio/x-mpegurl "
                             "pls audio/x-scpls sid audio/prs.sid xm audio/x-xm wma audio/x-ms-wma JPG image/jpeg "
                             "png image/png gif image/gif tif image/tiff HEIC image/heic avif image/avif "
                             "jxl image/jxl webp image/webp svg image/svg+xml psd image/vnd.adobe.photoshop "
                             "dng image/x-adobe-dng CR3 image/x-canon-cr3 NEF image/x-nikon-nef pdf application/pdf "
                             "zip application/zip srt application/x-subrip txt text/plain ttf font/ttf");
    for (std::string extension, type; usual >> extension >> type;)
        EXPECT_EQ(type, typeOf(extension)) << extension;
}

TEST_F(MimeTypesFileTest, isReadByTheDaemonAsItStands)
{
    const oru::util::MimeTypeMapper mapper(QUARROW_MIME_TABLE);
    ASSERT_FALSE(entries.empty());
    for (const Entry& entry : entries) {
        EXPECT_EQ(entry.extensions, mapper.MimeTypeToExtensions(entry.type)) << "line " << entry.line;
        for (const std::string& extension : entry.extensions)
            EXPECT_EQ(entry.type, mapper.ExtensionToMimeType(extension)) << extension;
    }
    for (const char* unknown : { "", "jPG", ".jpg", "jpg ", "#", "*/*", "image/jpeg", "crdownload" })
        EXPECT_EQ("", mapper.ExtensionToMimeType(unknown)) << unknown;
    for (const char* unknown : { "", "#", "*/*", "jpg", "image", "image/", "IMAGE/JPEG", "image/unknown" })
        EXPECT_TRUE(mapper.MimeTypeToExtensions(unknown).empty()) << unknown;
}

TEST_F(MimeTypesFileTest, listsTheRestInLowerAndUpperSpellingAndSourceTextInLowerOnly)
{
    const auto start = text.begin() + static_cast<std::ptrdiff_t>(text.find("# Other: source text"));
    const auto firstLineOfSource = static_cast<int>(std::count(text.begin(), start, '\n')) + 1;
    for (const Entry& entry : entries) {
        for (const std::string& extension : entry.extensions) {
            if (entry.line > firstLineOfSource)
                EXPECT_EQ(lower(extension), extension);
            else if (category(entry.type) == "other") {
                EXPECT_EQ(entry.type, typeOf(lower(extension))) << extension;
                EXPECT_EQ(entry.type, typeOf(upper(extension))) << extension;
            }
        }
    }
}

} // namespace
