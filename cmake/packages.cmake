# Debian packages, one for each component of install.cmake; tools/package makes them.

set(packages libtolvane1 libruvo-timer libtolvane-dev tvcat)
set(doc ${CMAKE_INSTALL_DATADIR}/doc)

# Every Debian package must contain these two files. Readers find the changes in CHANGELOG.md.
find_program(GZIP gzip REQUIRED)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "The tolvane developers <tolvane@tolvane.invalid>")
string(TIMESTAMP changelog_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(CONFIGURE OUTPUT debian/changelog CONTENT
"tolvane (@PROJECT_VERSION@) unstable; urgency=medium

  * Built from the project's source, whose CHANGELOG.md says what is new.

 -- @CPACK_DEBIAN_PACKAGE_MAINTAINER@  @changelog_date@
" @ONLY)
execute_process(COMMAND ${GZIP} -9nf debian/changelog WORKING_DIRECTORY ${PROJECT_BINARY_DIR}
    RESULT_VARIABLE gzip_failed)
if(gzip_failed)
    message(FATAL_ERROR "gzip: ${gzip_failed}")
endif()
file(CONFIGURE OUTPUT debian/copyright CONTENT
"Copyright: the tolvane developers

There is no licence yet: all rights reserved. There is no warranty.
" @ONLY)
foreach(package ${packages})
    install(FILES ${PROJECT_BINARY_DIR}/debian/changelog.gz ${PROJECT_BINARY_DIR}/debian/copyright
        DESTINATION ${doc}/${package} COMPONENT ${package})
endforeach()
install(DIRECTORY examples DESTINATION ${doc}/libtolvane-dev COMPONENT libtolvane-dev
    FILES_MATCHING PATTERN *.cpp PATTERN *.c PATTERN *.py)

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${packages})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "request and reply messages over TCP, on one thread")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON) # for libtolvane.so.1; the timer's name has no number
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(about "Processes exchange requests and replies over TCP. A request is answered at
once or later, and has a timeout; heartbeats supervise the links.
.
")

# Renew the dynamic linker's cache when a library is installed or removed.
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
foreach(package ${packages})
    string(TOUPPER ${package} name)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${package})
    if(package MATCHES "-dev$")
        set(CPACK_DEBIAN_${name}_PACKAGE_SECTION libdevel)
    elseif(package STREQUAL tvcat)
        set(CPACK_DEBIAN_${name}_PACKAGE_SECTION net)
        set(CPACK_DEBIAN_${name}_PACKAGE_SHLIBDEPS ON)
    else()
        set(CPACK_DEBIAN_${name}_PACKAGE_SECTION libs)
        set(CPACK_DEBIAN_${name}_PACKAGE_SHLIBDEPS ON)
        set(CPACK_DEBIAN_${name}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)
    endif()
endforeach()

set(CPACK_DEBIAN_LIBTOLVANE1_PACKAGE_DEPENDS "libruvo-timer (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TVCAT_PACKAGE_DEPENDS "libtolvane1 (>= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBTOLVANE-DEV_PACKAGE_DEPENDS
    "libtolvane1 (= ${PROJECT_VERSION}), libruvo-timer (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_LIBTOLVANE1_DESCRIPTION "${about}This package contains the shared library.")
set(CPACK_DEBIAN_LIBRUVO-TIMER_DESCRIPTION
    "${about}This package contains the timers, a library that a site may replace.")
set(CPACK_DEBIAN_LIBTOLVANE-DEV_DESCRIPTION
    "${about}This package contains the headers, what CMake and pkg-config need to find
the libraries, the manual and examples.")
set(CPACK_DEBIAN_TVCAT_DESCRIPTION
    "${about}This package contains tvcat, which sends lines as requests, or answers them.")
include(CPack)
