# SPDX-License-Identifier: Apache-2.0
# utils_install_companion(TARGET COMPONENT): installs a companion library of libutils, its archive where archives are
# built, its headers and its pkg-config file, all from the folder of its sources. COMPONENT gets the shared library.
function(utils_install_companion target component)
    if(UTILS_STATIC)
        utils_static_archive(${target})
        install(TARGETS ${target}-static EXPORT libutils ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    endif()
    install(TARGETS ${target} EXPORT libutils
            LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT ${component} NAMELINK_COMPONENT development)
    install(DIRECTORY include/utils DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
    file(RELATIVE_PATH UTILS_PC_INCLUDE_FROM_LIB /${CMAKE_INSTALL_LIBDIR} /${CMAKE_INSTALL_INCLUDEDIR})
    configure_file(lib${target}.pc.in lib${target}.pc @ONLY)
    install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lib${target}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()
