# SPDX-License-Identifier: Apache-2.0
# The target: 32 bits, big-endian.
set(triplet powerpc-linux-gnu)
set(emulator qemu-ppc)
include(${CMAKE_CURRENT_LIST_DIR}/../debian-cross.cmake)
