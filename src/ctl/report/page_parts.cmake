# Lists the files that PageParts.cpp puts into the program, in `page_part_files`, and writes the lines
# for the assembler into `page_parts`.
# The chart library comes from its Debian packages: of D3 the modules that the page needs, behind what each of them uses.
set(QUARROW_D3_FOLDER /usr/share/nodejs CACHE PATH "Where the packages node-d3-* have their folders d3-*")
set(QUARROW_D3_LICENCES /usr/share/doc/node-d3-hierarchy/copyright /usr/share/doc/node-d3-array/copyright
    CACHE STRING "The licences of D3's modules")

set(chart_modules array collection color format interpolate time time-format scale selection axis hierarchy)
list(TRANSFORM chart_modules REPLACE "(.+)" "${QUARROW_D3_FOLDER}/d3-\\1/dist/d3-\\1.min.js")
set(scripts elements.js growth.js treemap.js lists.js page.js)
list(TRANSFORM scripts PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)

foreach(file IN LISTS QUARROW_D3_LICENCES chart_modules)
    if(NOT EXISTS ${file})
        message(FATAL_ERROR "${file} is missing. node-d3-axis, node-d3-hierarchy, node-d3-scale and node-d3-selection bring "
            "it; QUARROW_D3_FOLDER and QUARROW_D3_LICENCES name another place.")
    endif()
endforeach()
foreach(licence IN LISTS QUARROW_D3_LICENCES)
    file(STRINGS ${licence} comment_ends REGEX "[*]/")
    if(comment_ends)
        message(FATAL_ERROR "${licence} cannot stand in a comment: ${comment_ends}")
    endif()
endforeach()

# page_part(LABEL ITEM...): the items one after the other, each with a line end, between LABEL and LABELEnd. An item is
# the path of a file, or the mark of a comment. The assembler's lines are C++ strings, for #include: a compiler cache that
# sees an .incbin in the source knows that the source is not all there is.
set(assembly)
set(page_part_files)
macro(page_part label)
    string(APPEND assembly "\".global ${label}\\n.hidden ${label}\\n${label}:\\n\"\n")
    foreach(item IN ITEMS ${ARGN})
        if(EXISTS ${item})
            string(APPEND assembly "\".incbin \\\"${item}\\\"\\n.ascii \\\"\\\\n\\\"\\n\"\n")
            list(APPEND page_part_files ${item})
        else()
            string(APPEND assembly "\".ascii \\\"${item}\\\\n\\\"\\n\"\n")
        endif()
    endforeach()
    string(APPEND assembly "\".global ${label}End\\n.hidden ${label}End\\n${label}End:\\n\"\n")
endmacro()
page_part(quarrowPageTemplate ${CMAKE_CURRENT_SOURCE_DIR}/report.html)
page_part(quarrowPageStyle ${CMAKE_CURRENT_SOURCE_DIR}/report.css)
page_part(quarrowChartLibrary "/*" ${QUARROW_D3_LICENCES} "*/" ${chart_modules})
page_part(quarrowPageScript ${scripts})

set(page_parts ${CMAKE_CURRENT_BINARY_DIR}/page_parts.inc)
file(CONFIGURE OUTPUT ${page_parts} CONTENT [[@assembly@]] @ONLY)
