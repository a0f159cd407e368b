# SPDX-License-Identifier: Apache-2.0
# 64 bits, little-endian, without atomics of less than a word.
set(triplet riscv64-linux-gnu)
set(emulator qemu-riscv64)
include(${CMAKE_CURRENT_LIST_DIR}/../debian-cross.cmake)
