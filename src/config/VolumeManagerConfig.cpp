#include "config/VolumeManagerConfig.h"

#include "config/XmlDocument.h"
#include "core/DurableFile.h"
#include "core/HeldFolder.h"
#include "core/WithoutLinks.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <libxml/xmlwriter.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>

namespace {

constexpr mode_t readableByAll = 0644;

bool isExistingFile(const std::string& path)
{
    struct stat64 status;
    return stat64(path.c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

/// The text of an element as a number; an element without text is skipped, which leaves the old value.
void readNumber(const xmlNode* element, std::atomic<int>& number)
{
    if (const char* text = elementText(element))
        number = numberIn(text);
}

std::string defaultDocument()
{
    const XmlTurn turn;
    const std::unique_ptr<xmlBuffer, void (*)(xmlBufferPtr)> buffer(xmlBufferCreate(), xmlBufferFree);
    {
        const std::unique_ptr<xmlTextWriter, void (*)(xmlTextWriterPtr)> writer(
            xmlNewTextWriterMemory(buffer.get(), 0), xmlFreeTextWriter);
        const auto text = [](const char* literal) { return reinterpret_cast<const xmlChar*>(literal); };
        xmlTextWriterStartDocument(writer.get(), "1.0", "UTF-8", nullptr);
        xmlTextWriterStartElement(writer.get(), text("Quarrow"));
        xmlTextWriterWriteElement(writer.get(), text("Version"), text("1.0"));
        xmlTextWriterStartElement(writer.get(), text("Volume"));
        xmlTextWriterWriteElement(writer.get(), text("last_updated_time"), text("0"));
        xmlTextWriterWriteElement(writer.get(), text("last_purge_time"), text("0"));
        xmlTextWriterEndDocument(writer.get());
    }
    return reinterpret_cast<const char*>(xmlBufferContent(buffer.get()));
}

/// Writes a file without a name and names it once it is complete, so that a power cut never leaves half of it. False
/// when nothing was made: not every file system has nameless files.
bool createNameless(const HeldFolder& folder, const std::string& name, const std::string& text)
{
    const FileDescriptor made(folder.open(".", O_TMPFILE | O_WRONLY, readableByAll));
    if (!made.isOpen())
        return false;
    const std::string self = "/proc/self/fd/" + std::to_string(made.get());
    return writeDurably(made.get(), text)
        && linkat(AT_FDCWD, self.c_str(), folder.get(), name.c_str(), AT_SYMLINK_FOLLOW) == 0;
}

std::string temporaryNameOf(const std::string& name) { return name + ".tmp"; }

enum class Outcome { notOpened, incomplete, complete };

/// Writes the text to the temporary file beside `name`. An incomplete file is removed.
Outcome writeTemporary(const HeldFolder& folder, const std::string& name, const std::string& text)
{
    const std::string temporaryName = temporaryNameOf(name);
    folder.remove(temporaryName); // left by a crash, or planted by a user of the volume
    const int descriptor = folder.open(temporaryName, O_WRONLY | O_CREAT | O_EXCL, readableByAll);
    if (descriptor < 0)
        return Outcome::notOpened;
    const bool written = writeDurably(descriptor, text);
    if (close(descriptor) == 0 && written)
        return Outcome::complete;
    folder.remove(temporaryName);
    return Outcome::incomplete;
}

/// Makes the file by way of a temporary one. False when the temporary file could not be opened.
bool createBeside(const HeldFolder& folder, const std::string& name, const std::string& text)
{
    struct stat64 status;
    if (fstatat64(folder.get(), name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        return false; // a folder, or a link that leads nowhere: it is not replaced
    const Outcome outcome = writeTemporary(folder, name, text);
    if (outcome == Outcome::complete && !folder.rename(temporaryNameOf(name), name))
        folder.remove(temporaryNameOf(name));
    return outcome != Outcome::notOpened;
}

/// The document as text, in its own encoding when `encoding` is nullptr.
std::string dump(const XmlDocument& document, const char* encoding)
{
    xmlChar* text = nullptr;
    int length = 0;
    xmlDocDumpMemoryEnc(document.get(), &text, &length, encoding);
    std::string result; // by length: the text of an encoding like UTF-16 holds zero bytes
    if (text != nullptr)
        result.assign(reinterpret_cast<const char*>(text), static_cast<std::string::size_type>(length));
    xmlFree(text);
    return result;
}

bool isReadable(const std::string& text)
{
    constexpr int silent = XML_PARSE_NOERROR | XML_PARSE_NOWARNING;
    const std::unique_ptr<xmlDoc, void (*)(xmlDocPtr)> document(parseUntrusted(text, "", silent), xmlFreeDoc);
    return document != nullptr;
}

[[noreturn]] void refuse()
{
    syslog(LOG_LOCAL5 | LOG_ERR, "Could not parse the config xml\n");
    throw "Could not parse the config xml";
}

} // namespace

VolumeManagerConfig::VolumeManagerConfig(const std::string& path)
    : filePath(resolveOwnLinks(path, LinkedFile::kept))
{
    if (filePath.empty() && isExistingFile(path))
        refuse();
    if (isExistingFile(filePath))
        load();
    else
        create();
}

VolumeManagerConfig::~VolumeManagerConfig() = default;

int VolumeManagerConfig::getLastPurgeTime() { return lastPurgeTime; }

void VolumeManagerConfig::setLastPurgeTime(int t)
{
    if (isExistingFile(filePath))
        rewrite(t);
}

void VolumeManagerConfig::load()
{
    const XmlDocument document(filePath, XmlDocument::untrusted);
    if (!document.isParsed())
        refuse();
    if (!isElement(document.root(), "Quarrow")) {
        std::puts("Badly formed xml ");
        return;
    }
    for (const xmlNode* child = document.root()->children; child != nullptr; child = child->next) {
        if (isElement(child, "Version")) {
            if (const char* text = elementText(child))
                version = text;
        } else if (isElement(child, "Volume")) {
            for (const xmlNode* field = child->children; field != nullptr; field = field->next) {
                if (isElement(field, "last_updated_time"))
                    readNumber(field, lastUpdatedTime);
                else if (isElement(field, "last_purge_time"))
                    readNumber(field, lastPurgeTime);
            }
        }
    }
}

void VolumeManagerConfig::create() const
{
    const std::string text = defaultDocument();
    const HeldFolder folder(filePath);
    const std::string name = HeldFolder::nameOf(filePath);
    if (name.empty() || (!createNameless(folder, name, text) && !createBeside(folder, name, text)))
        std::puts("testXmlwriterMemory: Error at fopen");
}

/// The text of the file with both times set. The turn at libxml2 ends with this function, before the text is written:
/// the disk of one volume may stall, and must not hold up the other volumes.
std::string VolumeManagerConfig::updatedDocument(int t)
{
    const int now = static_cast<int>(std::time(nullptr));
    const XmlDocument document(filePath, XmlDocument::untrusted);
    if (!document.isParsed())
        refuse();
    const auto setNumber = [](xmlNodePtr field, std::atomic<int>& held, int number) {
        xmlNodeSetContent(field, reinterpret_cast<const xmlChar*>(std::to_string(number).c_str()));
        held = number;
    };
    if (isElement(document.root(), "Quarrow")) {
        for (xmlNodePtr child = document.root()->children; child != nullptr; child = child->next) {
            if (!isElement(child, "Volume"))
                continue;
            for (xmlNodePtr field = child->children; field != nullptr; field = field->next) {
                if (isElement(field, "last_updated_time"))
                    setNumber(field, lastUpdatedTime, now);
                else if (isElement(field, "last_purge_time"))
                    setNumber(field, lastPurgeTime, t);
            }
        }
    }
    // In some encodings (such as UTF-7) libxml2 writes a document that it cannot read again. UTF-8 is safe.
    const std::string text = dump(document, nullptr);
    return isReadable(text) ? text : dump(document, "UTF-8");
}

void VolumeManagerConfig::rewrite(int t)
{
    const std::string text = updatedDocument(t);
    const bool isUsable
        = !text.empty() && text.length() <= XmlDocument::largestUntrusted; // the next start reads no larger one
    const HeldFolder folder(filePath);
    const std::string name = HeldFolder::nameOf(filePath);
    if (!isUsable || writeTemporary(folder, name, text) != Outcome::complete)
        return; // the old file stays the good one
    if (!folder.rename(temporaryNameOf(name), name))
        syslog(LOG_LOCAL5 | LOG_ERR, "Could not rename the file\n");
}
