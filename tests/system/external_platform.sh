#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Built for a product, the library leaves exactly the platform's names undefined besides the C library's,
# and takes the product's own semaphore and address records from a folder outside this tree.
#   external_platform.sh SOURCE C-COMPILER CMAKE-OPTION...
set -euo pipefail
source=$1 compiler=$2 product=/tmp/product
shift 2
. "$(dirname "$0")/../support/commands.sh"

mkdir -p $product/utils/platform
cat >$product/utils/platform/semaphore_type.h <<'TYPE'
#pragma once
#include <stdint.h>
typedef struct semaphore { int32_t user; char label[100]; int32_t value; } semaphore_t;
TYPE
cat >$product/utils/platform/ipc_address.h <<'TYPE'
#pragma once
#include <stdint.h>
typedef struct ipc_address { int32_t blade; char name[16]; int32_t switch_no, node; } ipc_address;
TYPE
quietly cmake -G Ninja -S "$source" -B /tmp/external -DUTILS_PLATFORM=external -DUTILS_PLATFORM_INCLUDE=$product -DUTILS_TESTS=OFF \
    -DCMAKE_BUILD_TYPE=Release -DCMAKE_C_COMPILER="$compiler" "$@"
quietly cmake --build /tmp/external

library=/tmp/external/lib/libutils.so
names=(ep_context get_release_info ioss_create ioss_free ipcSend ipcSendRcv rasevt_log semaphore_count
       semaphore_destroy semaphore_down semaphore_down_to semaphore_init semaphore_up semaphore_value
       sizeof_geps timebase_read trace_data_init trace_module_cleanup)
# On the target's processor the time base is read inline.
readelf -h "$library" | grep -q PowerPC && names=("${names[@]/timebase_read/}")
undefined=$(nm -D --undefined-only "$library" | awk '$1 == "U" {print $2}' | grep -v '@GLIBC_' | sort)
diff <(printf '%s\n' "${names[@]}" | grep . | sort) <(echo "$undefined") ||
    fail "undefined symbols differ (> only in the library)"

flags=(-Wall -Wextra -Werror -I "$product" -I "$source/include" -I "$source/platform/include" -pthread)
"$compiler" "${flags[@]}" -shared -fPIC -o /tmp/external/lib/libbare.so "$source/platform/check/bare_platform.c"
"$compiler" "${flags[@]}" -rdynamic -o /tmp/external/product "$source/tests/system/product_platform.c" \
    -L /tmp/external/lib -lutils -lbare -Wl,-rpath,/tmp/external/lib
shown=$(${UTILS_EMULATOR:+"$UTILS_EMULATOR"} /tmp/external/product)
wanted=$(
    size=$(sed -n 's/semaphore of \([0-9]*\) bytes.*/\1/p' <<<"$shown")
    [ "$size" -gt 104 ] || fail "not the product's semaphore: $size bytes"
    echo "semaphore of $size bytes: kind 1, value 0"
    echo "taken: 0, value 0"
    echo "timer: 0, argument 7"
    echo "request 4402 to node 6 switch 0 'portd', blade 0, 20 s, 24 bytes"
)
diff <(echo "$wanted") <(echo "$shown") || fail "the product's records are not the ones used (> what the program printed)"
echo "external_platform: $(wc -l <<<"$undefined") undefined symbols besides the C library's, all the platform's; its own records work"
