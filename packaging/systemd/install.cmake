# Run by 'cmake --install', when the prefix is known for certain: what names programs by their full paths is made here.
# `source` and `made` are folders, of this file and in the build.
set(sbindir ${CMAKE_INSTALL_PREFIX}/sbin)
set(bindir ${CMAKE_INSTALL_PREFIX}/bin)
foreach(file IN ITEMS quarrow.service quarrow-generator)
    configure_file(${source}/${file}.in ${made}/${file} @ONLY)
endforeach()

set(lib ${CMAKE_INSTALL_PREFIX}/lib)
file(INSTALL ${made}/quarrow.service ${source}/quarrow-rewalk.service ${source}/quarrow-rewalk.timer
    DESTINATION ${lib}/systemd/system)
file(INSTALL ${made}/quarrow-generator DESTINATION ${lib}/systemd/system-generators USE_SOURCE_PERMISSIONS)
file(INSTALL ${source}/journald.conf DESTINATION ${lib}/systemd/journald@quarrow.conf.d RENAME quarrow.conf)
file(INSTALL ${source}/sysctl.conf DESTINATION ${lib}/sysctl.d RENAME quarrow.conf)
file(INSTALL ${source}/sysusers.conf DESTINATION ${lib}/sysusers.d RENAME quarrow.conf)
