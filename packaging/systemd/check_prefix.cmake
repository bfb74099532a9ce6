# The first part of `cmake --install`: a prefix that the units and the generator cannot name is refused before anything is there.
if(NOT CMAKE_INSTALL_PREFIX MATCHES "^/[A-Za-z0-9/._+,:@=~-]*$")
    message(FATAL_ERROR "Nothing is installed: systemd units cannot name programs below '${CMAKE_INSTALL_PREFIX}'. "
        "The prefix has to be an absolute path of ASCII letters, digits and / . _ + , : @ = ~ -. "
        "A build with -DQUARROW_CTL=OFF has no units and takes any.")
endif()
