# SPDX-License-Identifier: Apache-2.0
# find_package(libutils COMPONENTS ...) gives the target utils::utils, and for each component a target of its name:
# platform (utils::utils-platform), daemon (utils::utils-daemon), testing (utils::utils-testing). Static archives, where
# they were built: utils::utils-static.
include("${CMAKE_CURRENT_LIST_DIR}/libutils-targets.cmake")
foreach(component IN LISTS libutils_FIND_COMPONENTS)
    if(TARGET utils::utils-${component})
        set(libutils_${component}_FOUND TRUE)
    elseif(libutils_FIND_REQUIRED_${component})
        set(libutils_FOUND FALSE)
        set(libutils_NOT_FOUND_MESSAGE "this installation has no component '${component}'")
    endif()
endforeach()
