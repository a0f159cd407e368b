# Install rules: libraries, headers, the pkg-config file and the CMake package. Everything is
# relocatable: the tree works under any prefix.
include(CMakePackageConfigHelpers)

set(libraries utils)
if(UTILS_PLATFORM STREQUAL "posix")
    list(APPEND libraries utils-platform)
    install(DIRECTORY platform/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/utils/platform
            FILES_MATCHING PATTERN "*.h" PATTERN "posix" EXCLUDE)
endif()
install(TARGETS ${libraries} EXPORT libutils
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)
install(DIRECTORY include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

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
