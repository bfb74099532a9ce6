# Part of `cmake --install`: installs the MIME table in the one place where the daemon reads it, whatever the prefix of the
# rest. A table there that an administrator has edited stays as it is, and the new one is put beside it. It counts as edited
# when its checksum is not the one that the last installation noted down. With DESTDIR, as packages are built, the table is
# always installed: what is edited is the package manager's business then.
get_filename_component(mime_table "${CMAKE_CURRENT_LIST_DIR}/../data/mime_types.txt" ABSOLUTE)
set(mime_folder /usr/local/quarrow)
set(mime_installed ${mime_folder}/mime_types.txt)
set(mime_note ${mime_installed}.sha256)

if(NOT "$ENV{DESTDIR}" STREQUAL "")
    file(INSTALL "${mime_table}" DESTINATION ${mime_folder})
else()
    file(SHA256 "${mime_table}" mime_new_sum)
    set(mime_target ${mime_installed})
    if(IS_SYMLINK ${mime_installed})
        set(mime_target ${mime_installed}.new) # the administrator's link, not a table that was installed
    elseif(EXISTS ${mime_installed})
        file(SHA256 ${mime_installed} mime_sum)
        set(mime_noted_sum "")
        if(EXISTS ${mime_note})
            file(STRINGS ${mime_note} mime_noted_sum REGEX "^[0-9a-f]+  mime_types.txt$" LIMIT_COUNT 1)
        endif()
        if(NOT mime_sum STREQUAL mime_new_sum AND NOT mime_noted_sum STREQUAL "${mime_sum}  mime_types.txt")
            set(mime_target ${mime_installed}.new)
        endif()
    endif()

    # Not file(INSTALL), which takes a file with the time of the new one for the new one.
    file(MAKE_DIRECTORY ${mime_folder})
    file(COPY_FILE "${mime_table}" ${mime_target}.tmp)
    file(CHMOD ${mime_target}.tmp PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
    file(RENAME ${mime_target}.tmp ${mime_target})
    file(WRITE ${mime_note} "${mime_new_sum}  mime_types.txt\n")
    message(STATUS "Installing: ${mime_target}")
    if(NOT mime_target STREQUAL mime_installed)
        message(STATUS "${mime_installed} was edited and stays as it is. Compare it with ${mime_target}.")
    endif()
    list(APPEND CMAKE_INSTALL_MANIFEST_FILES ${mime_target} ${mime_note})
endif()
