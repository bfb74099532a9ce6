#include "ctl/report/ReportPage.h"

#include "ctl/report/PageParts.h"

#include <cassert>

std::string withoutTags(std::string_view json)
{
    std::string text;
    text.reserve(json.size() + json.size() / 64);
    for (const char c : json) {
        if (c == '<')
            text += "\\u003c"; // it occurs in strings alone
        else
            text += c;
    }
    return text;
}

/// Cuts the template off in front of the mark, which is dropped; gives back what stood there.
static std::string_view cutAt(std::string_view& rest, std::string_view mark)
{
    const std::size_t at = rest.find(mark);
    assert(at != std::string_view::npos); // the template is part of this program
    const std::string_view front = rest.substr(0, at);
    rest.remove_prefix(at + mark.size());
    return front;
}

std::string reportPage(std::string_view json)
{
    std::string_view rest = pageTemplate();
    std::string page;
    page.reserve(
        rest.size() + pageStyle().size() + chartLibrary().size() + pageScript().size() + json.size() * 65 / 64);
    page.append(cutAt(rest, "/*STYLE*/")).append(pageStyle());
    page.append(cutAt(rest, "/*LIBRARY*/")).append(chartLibrary());
    page.append(cutAt(rest, "/*DATA*/")).append(withoutTags(json));
    page.append(cutAt(rest, "/*SCRIPT*/")).append(pageScript());
    return page.append(rest);
}
