# SPDX-License-Identifier: Apache-2.0
# Install rules: libraries, headers, the pkg-config file, the CMake package, qelctl, the gdb extension
# and the manual pages. Everything is relocatable: the tree works under any prefix.
include(CMakePackageConfigHelpers)
option(UTILS_DOCS "Make the manual pages and the API reference (needs doxygen, mandoc, man-db and help2man)" OFF)

# Whatever the umask is.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

set(libraries utils)
if(UTILS_PLATFORM STREQUAL "posix")
    list(APPEND libraries utils-platform)
    install(DIRECTORY platform/include/utils platform/posix/include/utils
            DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
endif()
install(TARGETS ${libraries} EXPORT libutils
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
if(UTILS_STATIC)
    list(TRANSFORM libraries APPEND -static OUTPUT_VARIABLE archives)
    install(TARGETS ${archives} EXPORT libutils ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
endif()
install(DIRECTORY include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_BINARY_DIR}/include/utils/version.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/utils)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/libutils)
install(EXPORT libutils FILE libutils-targets.cmake NAMESPACE utils:: DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libutils-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES cmake/libutils-config.cmake ${PROJECT_BINARY_DIR}/libutils-config-version.cmake
        DESTINATION ${package_dir})

file(RELATIVE_PATH UTILS_PC_INCLUDE_FROM_LIB /${CMAKE_INSTALL_LIBDIR} /${CMAKE_INSTALL_INCLUDEDIR})
list(TRANSFORM libraries PREPEND -l OUTPUT_VARIABLE pkg_config_libs)
list(JOIN pkg_config_libs " " pkg_config_libs)
configure_file(cmake/libutils.pc.in libutils.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libutils.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

include(InstallGdb)

# The directories of the library and its daemons.
install(FILES share/tmpfiles/libutils.conf DESTINATION lib/tmpfiles.d)

# What is read and copied from.
install(FILES README.md CHANGELOG.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} FILES_MATCHING
        PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png" PATTERN "man" EXCLUDE)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/libutils/examples
        USE_SOURCE_PERMISSIONS PATTERN "CMakeLists.txt" EXCLUDE PATTERN "demo*" EXCLUDE PATTERN "*_demo.sh" EXCLUDE)

# The pages that are written by hand need no tools.
file(GLOB pages RELATIVE ${PROJECT_SOURCE_DIR}/docs/man CONFIGURE_DEPENDS docs/man/*.7)
string(TIMESTAMP DATE "%Y-%m-%d" UTC)
set(VERSION ${PROJECT_VERSION})
foreach(page IN LISTS pages)
    configure_file(docs/man/${page} man7/${page} @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/man7/${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
endforeach()

if(UTILS_DOCS)
    file(GLOB documented CONFIGURE_DEPENDS include/utils/*.h platform/include/utils/platform/*.h
         platform/posix/include/utils/platform/posix/*.h lib/*/include/utils/*.h docs/* docs/man/*.7
         examples/mini/*.c)
    add_custom_command(OUTPUT docs/man/man3 COMMAND ${PROJECT_SOURCE_DIR}/scripts/docs ${PROJECT_BINARY_DIR}/docs
                       DEPENDS ${documented} scripts/docs scripts/manpages lib/utils/libutils.map lib/testing/libutils-testing.map lib/daemon/libutils-daemon.map
                       COMMENT "Making the manual pages" VERBATIM)
    add_custom_target(docs ALL DEPENDS docs/man/man3)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR})
    install(DIRECTORY ${PROJECT_BINARY_DIR}/docs/html DESTINATION ${CMAKE_INSTALL_DOCDIR})
endif()

# The operator's command; its target exists once the whole project has been read.
function(utils_install_qelctl)
    if(NOT TARGET qelctl)
        return()
    endif()
    file(RELATIVE_PATH libraries_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
    set_target_properties(qelctl PROPERTIES INSTALL_RPATH "$ORIGIN/${libraries_from_bin}")
    install(TARGETS qelctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
    install(FILES share/bash-completion/qelctl DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    if(UTILS_DOCS)
        set(shown $<TARGET_FILE:qelctl>)
        if(UTILS_EMULATOR)
            list(JOIN UTILS_EMULATOR "' '" emulator)
            set(shown ${PROJECT_BINARY_DIR}/docs/run/qelctl)
            file(GENERATE OUTPUT ${shown} CONTENT "#!/bin/sh\nexec '${emulator}' '$<TARGET_FILE:qelctl>' \"$@\"\n"
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
        endif()
        add_custom_command(OUTPUT docs/man/man1/qelctl.1 DEPENDS qelctl
                           COMMAND ${CMAKE_COMMAND} -E make_directory docs/man/man1
                           COMMAND ${PROJECT_SOURCE_DIR}/scripts/qelctl-man ${shown} docs/man/man1/qelctl.1
                           VERBATIM)
        add_custom_target(qelctl_man ALL DEPENDS docs/man/man1/qelctl.1)
    endif()
endfunction()
cmake_language(DEFER DIRECTORY ${PROJECT_SOURCE_DIR} CALL utils_install_qelctl)
