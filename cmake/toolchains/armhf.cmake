# SPDX-License-Identifier: Apache-2.0
# 32 bits, little-endian, weakly ordered; unwinds by tables of its own.
set(triplet arm-linux-gnueabihf)
set(emulator qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/../debian-cross.cmake)
