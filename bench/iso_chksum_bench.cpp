// SPDX-License-Identifier: Apache-2.0
// The ISO checksum beside Adler-32, which is made of the same two sums, over units from a short one
// to 1 MiB; and the test for zeros beside a comparison with zeros.
#include "bench.h"

#include <cstring>
#include <random>
#include <string>
#include <vector>

#ifdef BENCH_ZLIB
#include <zlib.h>
#endif
#ifdef BENCH_LIBDEFLATE
#include <libdeflate.h>
#endif

#include "utils/fletcher.h"
#include "utils/iso_chksum.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes *unit_of(unsigned size) {
    auto *unit = new Bytes(size);
    std::mt19937 random(1);
    for (unsigned char &byte : *unit)
        byte = static_cast<unsigned char>(random());
    computeIsoChksum(unit->data(), size, &(*unit)[2]);
    return unit;
}

template <typename Sum>
void side(const std::string &group, const char *name, const Bytes *unit, Sum sum) {
    benchmark::RegisterBenchmark((group + "/" + name).c_str(), [=](benchmark::State &state) {
        for (auto _ : state) {
            benchmark::DoNotOptimize(sum(unit->data(), static_cast<unsigned>(unit->size())));
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(unit->size()));
    });
}

void checksums(unsigned size) {
    const Bytes *unit = unit_of(size);
    std::string group = "bytes_" + std::to_string(size);
    side(group, "ours", unit,
         [](const unsigned char *data, unsigned len) { return isoChksumOk(data, len, data + 2); });
#ifdef __x86_64__
    side(group, "ours-sse2", unit, utils::fletcher_vectors<utils::FletcherSse2>);
#endif
    side(group, "ours-portable", unit, utils::fletcher_portable);
#ifdef BENCH_ZLIB
    side(group, "zlib", unit,
         [](const unsigned char *data, unsigned len) { return adler32(1, data, len); });
#endif
#ifdef BENCH_LIBDEFLATE
    side(group, "libdeflate", unit,
         [](const unsigned char *data, unsigned len) { return libdeflate_adler32(1, data, len); });
#endif
}

void prepare() {
    for (unsigned size : {64, 1500, 65536, 1048576})
        checksums(size);
    const auto *zeros = new Bytes(1500), *others = new Bytes(1500);
    side("iszero", "ours", zeros,
         [](const unsigned char *data, unsigned len) { return iszero(data, len); });
    side("iszero", "memcmp", zeros, [=](const unsigned char *data, unsigned len) {
        return memcmp(data, others->data(), len);
    });
}

}  // namespace

BENCH_MAIN(prepare)
