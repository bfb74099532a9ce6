#include "ctl/check/ParserMessages.h"

#include <libxml/xmlerror.h>

namespace {

constexpr std::size_t mostMessages = 100;

void printNothing(void*, const char*, ...) { }

#if LIBXML_VERSION >= 21200
using ReportedError = const xmlError*;
#else
using ReportedError = xmlErrorPtr;
#endif

void keep(void* context, ReportedError error)
{
    std::string text = error->message != nullptr ? error->message : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '.' || text.back() == ' '))
        text.pop_back();
    // A text beyond the parser's limit is reported like a lack of memory.
    const bool isFatal = error->level == XML_ERR_FATAL || error->code == XML_ERR_NO_MEMORY;
    static_cast<ParserMessages*>(context)->add({ isFatal, error->line, text });
}

} // namespace

ParserMessages::ParserMessages()
{
    xmlSetGenericErrorFunc(nullptr, printNothing);
    xmlSetStructuredErrorFunc(this, keep);
}

ParserMessages::~ParserMessages() { xmlSetStructuredErrorFunc(nullptr, nullptr); }

void ParserMessages::add(const Message& message)
{
    if (messages.size() < mostMessages)
        messages.push_back(message);
}
