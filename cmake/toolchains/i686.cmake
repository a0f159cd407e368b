# SPDX-License-Identifier: Apache-2.0
# 32 bits, little-endian; runs on x86-64.
set(triplet i686-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/../debian-cross.cmake)
