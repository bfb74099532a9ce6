# Part of `cmake --install`, when the prefix is known for certain: the units and the generator name the programs by their full
# paths. `made` is a folder of the build for what is changed here.
set(lib ${CMAKE_INSTALL_PREFIX}/lib)
function(install_with_prefix name folder permissions)
    file(READ ${CMAKE_CURRENT_LIST_DIR}/${name} text)
    string(REPLACE "/usr/sbin/quarrow" "${CMAKE_INSTALL_PREFIX}/sbin/quarrow" text "${text}")
    string(REPLACE "/usr/bin/quarrowctl" "${CMAKE_INSTALL_PREFIX}/bin/quarrowctl" text "${text}")
    string(REPLACE "/usr/lib/quarrow" "${lib}/quarrow" text "${text}")
    file(WRITE ${made}/${name} "${text}")
    file(INSTALL ${made}/${name} DESTINATION ${folder} ${permissions})
endfunction()

set(program "PERMISSIONS;OWNER_READ;OWNER_WRITE;OWNER_EXECUTE;GROUP_READ;GROUP_EXECUTE;WORLD_READ;WORLD_EXECUTE")
install_with_prefix(quarrow.service ${lib}/systemd/system "")
install_with_prefix(quarrow-check ${lib}/quarrow "${program}")
install_with_prefix(quarrow-generator ${lib}/systemd/system-generators "${program}")
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/quarrow-rewalk.service ${CMAKE_CURRENT_LIST_DIR}/quarrow-rewalk.timer
    DESTINATION ${lib}/systemd/system)
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/journald.conf DESTINATION ${lib}/systemd/journald@quarrow.conf.d
    RENAME 30-quarrow.conf) # an administrator's local.conf comes after it, and counts
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/sysctl.conf DESTINATION ${lib}/sysctl.d RENAME 30-quarrow.conf)
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/sysusers.conf DESTINATION ${lib}/sysusers.d RENAME quarrow.conf)
file(INSTALL ${CMAKE_CURRENT_LIST_DIR}/tmpfiles.conf DESTINATION ${lib}/tmpfiles.d RENAME quarrow.conf)
