# SPDX-License-Identifier: Apache-2.0
# What Debian's cross compilers have in common. A toolchain file sets `triplet`, and `emulator` when this
# machine's processor cannot run the programs, and includes this one.
set(CMAKE_SYSTEM_NAME Linux)
string(REGEX REPLACE "-.*" "" CMAKE_SYSTEM_PROCESSOR ${triplet})
set(CMAKE_C_COMPILER ${triplet}-gcc)
set(CMAKE_CXX_COMPILER ${triplet}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${triplet})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
foreach(kind LIBRARY INCLUDE PACKAGE)
    set(CMAKE_FIND_ROOT_PATH_MODE_${kind} ONLY)
endforeach()
if(emulator)
    set(UTILS_EMULATOR ${emulator} -L /usr/${triplet})
else()
    # The processor runs the programs as they are; their C library stands below the triplet, also for the libraries
    # that they need: what RPATH says is for these, too, while RUNPATH is for the program alone.
    file(GLOB loader /usr/${triplet}/lib/ld-linux*.so.*)
    set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,--dynamic-linker=${loader} -Wl,-rpath,/usr/${triplet}/lib -Wl,--disable-new-dtags")
endif()
