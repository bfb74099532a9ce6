#include "ctl/report/PageParts.h"

// The assembler puts the files into the program: it can do so for every machine that the compiler builds for, and takes
// them as they are. CMake writes the lines, with a pair of labels around each part.
// clang-format off
__asm__(".pushsection .rodata\n"
#include "page_parts.inc"
        ".popsection\n");
// clang-format on

extern "C" {
extern const char quarrowPageTemplate[], quarrowPageTemplateEnd[];
extern const char quarrowPageStyle[], quarrowPageStyleEnd[];
extern const char quarrowChartLibrary[], quarrowChartLibraryEnd[];
extern const char quarrowPageScript[], quarrowPageScriptEnd[];
}

static std::string_view between(const char* start, const char* end)
{
    return { start, static_cast<std::size_t>(end - start) };
}

std::string_view pageTemplate() { return between(quarrowPageTemplate, quarrowPageTemplateEnd); }

std::string_view pageStyle() { return between(quarrowPageStyle, quarrowPageStyleEnd); }

std::string_view chartLibrary() { return between(quarrowChartLibrary, quarrowChartLibraryEnd); }

std::string_view pageScript() { return between(quarrowPageScript, quarrowPageScriptEnd); }
