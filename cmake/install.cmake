# Installs two libraries, three headers, the files with which CMake and pkg-config find them, and
# the Wireshark dissector. No file contains the prefix, so the folder may be moved. The components
# are the Debian packages of tools/package.

install(TARGETS tolvane EXPORT tolvane
    LIBRARY COMPONENT libtolvane1 NAMELINK_COMPONENT libtolvane-dev
    ARCHIVE COMPONENT libtolvane-dev)
install(TARGETS ruvo_timer EXPORT tolvane
    LIBRARY COMPONENT libruvo-timer
    ARCHIVE COMPONENT libtolvane-dev)
install(FILES include/tolvane.h include/tolvane.hpp timer/ruvo_timer.h
    TYPE INCLUDE COMPONENT libtolvane-dev)

# The loader looks for the timer library in LD_LIBRARY_PATH, then next to libtolvane.so. Debian
# packages do not need this, so tools/package sets CMAKE_SKIP_INSTALL_RPATH.
set_target_properties(tolvane PROPERTIES INSTALL_RPATH "$ORIGIN")

# The targets depend on no other CMake package, so the exported file is the whole package.
include(CMakePackageConfigHelpers)
set(config_folder ${CMAKE_INSTALL_LIBDIR}/cmake/tolvane)
install(EXPORT tolvane NAMESPACE tolvane:: FILE tolvaneConfig.cmake
    DESTINATION ${config_folder} COMPONENT libtolvane-dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tolvaneConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tolvaneConfigVersion.cmake
    DESTINATION ${config_folder} COMPONENT libtolvane-dev)

set(pc_folder ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH pc_to_prefix ${pc_folder} ${CMAKE_INSTALL_PREFIX})
file(RELATIVE_PATH pc_to_libdir ${pc_folder} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH pc_to_includedir ${pc_folder} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
foreach(library tolvane ruvo_timer)
    configure_file(cmake/${library}.pc.in ${library}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${library}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT libtolvane-dev)
endforeach()

install(FILES tools/wireshark/tolvane.lua DESTINATION ${CMAKE_INSTALL_DATADIR}/tolvane
    COMPONENT libtolvane-dev)
