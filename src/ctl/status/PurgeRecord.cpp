#include "ctl/status/PurgeRecord.h"

#include "config/XmlDocument.h"
#include "core/WithoutLinks.h"

namespace {

struct Times {
    int threshold = 0; ///< last_purge_time, which lies a threshold before the purge; 0 when there was none
    int written = 0;   ///< last_updated_time
};

/// The times in the document, as VolumeManagerConfig reads them: the last one counts, and no number is 0.
Times recordedTimes(const xmlNode* root)
{
    Times times;
    if (!isElement(root, "Quarrow"))
        return times;
    for (const xmlNode* child = root->children; child != nullptr; child = child->next) {
        if (!isElement(child, "Volume"))
            continue;
        for (const xmlNode* field = child->children; field != nullptr; field = field->next) {
            const char* const text = elementText(field);
            if (text != nullptr && isElement(field, "last_purge_time"))
                times.threshold = numberIn(text);
            else if (text != nullptr && isElement(field, "last_updated_time"))
                times.written = numberIn(text);
        }
    }
    return times;
}

} // namespace

PurgeRecord readPurgeRecord(const std::string& stateFile)
{
    PurgeRecord record;
    const std::string path = resolveOwnLinks(stateFile, LinkedFile::kept);
    const XmlDocument document(path, XmlDocument::untrusted);
    const Times times = document.isParsed() ? recordedTimes(document.root()) : Times();
    const bool isPurged = times.threshold != 0;
    record.isKnown = document.isParsed() && (!isPurged || times.written != 0);
    // The daemon writes the file with each purge and never else. The threshold may have been another one then.
    if (isPurged && record.isKnown)
        record.lastPurge = times.written;
    return record;
}
