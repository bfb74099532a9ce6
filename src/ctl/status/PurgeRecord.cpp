#include "ctl/status/PurgeRecord.h"

#include "config/XmlDocument.h"
#include "core/WithoutLinks.h"

#include <cstdlib>

namespace {

/// The time in the document, as VolumeManagerConfig reads it: the last one counts, and no number is 0.
int recordedTime(const xmlNode* root)
{
    int time = 0;
    if (!isElement(root, "Quarrow"))
        return time;
    for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
        if (!isElement(child, "Volume"))
            continue;
        for (const xmlNode* field = child->children; field != nullptr; field = field->next) {
            const char* const text = isElement(field, "last_purge_time") ? elementText(field) : nullptr;
            time = text != nullptr ? std::atoi(text) : time;
        }
    }
    return time;
}

} // namespace

PurgeRecord readPurgeRecord(const std::string& stateFile, int threshold)
{
    PurgeRecord record;
    const std::string path = resolveOwnLinks(stateFile, LinkedFile::kept);
    const XmlDocument document(path, XmlDocument::untrusted);
    record.isKnown = document.isParsed();
    const int recorded = record.isKnown ? recordedTime(document.root()) : 0;
    if (recorded != 0) // in 32 bits that wrap, as PurgeSchedule reckons
        record.lastPurge = static_cast<int>(static_cast<unsigned>(recorded) + static_cast<unsigned>(threshold));
    return record;
}
