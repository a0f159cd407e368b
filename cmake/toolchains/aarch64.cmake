# SPDX-License-Identifier: Apache-2.0
# 64 bits, little-endian, weakly ordered.
set(triplet aarch64-linux-gnu)
set(emulator qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/../debian-cross.cmake)
