# SPDX-License-Identifier: Apache-2.0
# Warnings, hardening and sanitizers, in one place. Targets take them by linking utils_build_flags.
include(CheckCXXCompilerFlag)

add_library(utils_build_flags INTERFACE)
target_compile_options(utils_build_flags INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wconversion -Wundef -Wcast-align
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes>
    $<$<BOOL:${UTILS_WERROR}>:-Werror>
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety;-Werror=thread-safety>
    -fstack-protector-strong)
# Right beyond 2038 on 32-bit hosts, too, where the C library gives the choice.
target_compile_definitions(utils_build_flags INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_link_options(utils_build_flags INTERFACE -Wl,-z,relro,-z,now,-z,noexecstack)

foreach(flag -fstack-clash-protection -fcf-protection=full)
    string(MAKE_C_IDENTIFIER "has${flag}" have)
    check_cxx_compiler_flag("${flag} -Werror" ${have})
    if(${have})
        target_compile_options(utils_build_flags INTERFACE ${flag})
    endif()
endforeach()

if(UTILS_FUZZ)
    target_compile_options(utils_build_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
if(UTILS_SANITIZE)
    target_compile_options(utils_build_flags INTERFACE
        -fsanitize=${UTILS_SANITIZE} -fno-omit-frame-pointer)
    target_link_options(utils_build_flags INTERFACE -fsanitize=${UTILS_SANITIZE})
    if(UTILS_SANITIZE MATCHES "undefined")
        target_compile_options(utils_build_flags INTERFACE -fno-sanitize-recover=undefined)
    endif()
elseif(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    target_compile_options(utils_build_flags INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
endif()

# The folder of the build leaves no trace in the libraries, so that two builds give the same bytes. Run gdb at the
# top of the sources: paths count from there.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(reproducible "-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.")
if(UTILS_COVERAGE)
    set(reproducible --coverage -fprofile-update=atomic -fprofile-abs-path)
endif()

# Failed checks show who called them. Some processors have no other way to walk the stack than these tables, which
# their compilers leave out of programs without exceptions. UTILS_SMALL has the back chain for it.
set(walkable $<$<NOT:$<BOOL:${UTILS_SMALL}>>:-fasynchronous-unwind-tables>)

# All symbols are bound when the libraries are loaded, so calls go straight through the table of addresses. It is
# worth a tenth of a short call that takes and releases a lock, and costs no room.
set(direct $<$<STREQUAL:${CMAKE_SYSTEM_PROCESSOR},x86_64>:-fno-plt>)

# The library and the platform stand-in: C++ inside, C outside, no C++ runtime.
add_library(utils_cxx_inside INTERFACE)
target_link_libraries(utils_cxx_inside INTERFACE utils_build_flags)
target_compile_options(utils_cxx_inside INTERFACE ${reproducible}
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics
      -fvisibility-inlines-hidden>
    -fvisibility=hidden -ftls-model=initial-exec ${walkable} ${direct})

# Makes `target` a shared library that is linked by the C driver and exports what `map` lists. A project that takes this
# one in by add_subdirectory() links the names that find_package() would give it.
function(utils_c_shared_library target map)
    add_library(utils::${target} ALIAS ${target})
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:utils_cxx_inside>)
    target_link_options(${target} PRIVATE "-Wl,--version-script=${map}")
    set_target_properties(${target} PROPERTIES LINKER_LANGUAGE C LINK_DEPENDS ${map}
                          VERSION ${UTILS_SOVERSION} SOVERSION ${UTILS_SOVERSION})
    if(UTILS_COVERAGE)
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/coverage/enroll.c)
        target_link_options(${target} PRIVATE --coverage)
    endif()
    # CMake would add the C++ runtime for the C++ sources: without it, a use of it is a link error.
    set(CMAKE_CXX_IMPLICIT_LINK_LIBRARIES "" PARENT_SCOPE)
endfunction()

# Makes the archive of the objects that the shared library `target` is linked from, as target `target`-static. In an
# archive the internal names are the program's, too: a program's own function named like one of ours replaces ours.
function(utils_static_archive target)
    add_library(${target}-static STATIC $<TARGET_OBJECTS:${target}>)
    add_library(utils::${target}-static ALIAS ${target}-static)
    set_target_properties(${target}-static PROPERTIES OUTPUT_NAME ${target} LINKER_LANGUAGE C
                          ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
    target_include_directories(${target}-static
        INTERFACE $<TARGET_PROPERTY:${target},INTERFACE_INCLUDE_DIRECTORIES>)
endfunction()
