#!/usr/bin/env bash
# Built for a product, the library leaves exactly the platform's names undefined besides the C library's.
set -euo pipefail
source=$1
shift
cmake -G Ninja -S "$source" -B /tmp/external -DUTILS_PLATFORM=external -DUTILS_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
    "$@" >/tmp/configure.log 2>&1 || { cat /tmp/configure.log; exit 1; }
cmake --build /tmp/external >/tmp/build.log 2>&1 || { cat /tmp/build.log; exit 1; }

library=/tmp/external/lib/libutils.so
names=(ep_context get_release_info ioss_create ioss_free ipcSend ipcSendRcv rasevt_log semaphore_count
       semaphore_destroy semaphore_down semaphore_down_to semaphore_init semaphore_up semaphore_value
       sizeof_geps timebase_read trace_data_init trace_module_cleanup)
# On the target's processor the time base is read inline.
readelf -h "$library" | grep -q PowerPC && names=("${names[@]/timebase_read/}")
undefined=$(nm -D --undefined-only "$library" | awk '$1 == "U" {print $2}' | grep -v '@GLIBC_' | sort)
diff <(printf '%s\n' "${names[@]}" | grep . | sort) <(echo "$undefined") ||
    { echo "external_platform: undefined symbols differ (> only in the library)" >&2; exit 1; }
echo "external_platform: $(wc -l <<<"$undefined") undefined symbols besides the C library's, all the platform's"
