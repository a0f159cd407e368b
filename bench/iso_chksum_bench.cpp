// The ISO checksum beside the simple form that reduces both sums at every byte, over units from a
// short one to many blocks. Argument: bytes of the unit.
#include <benchmark/benchmark.h>

#include <cstddef>
#include <vector>

#include "utils/iso_chksum.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes unit_of(const benchmark::State &state) {
    Bytes unit(static_cast<size_t>(state.range(0)));
    unsigned seed = 1;
    for (unsigned char &byte : unit)
        byte = static_cast<unsigned char>((seed = seed * 1103515245U + 12345U) >> 16);
    return unit;
}

// The simple form; verifies as isoChksumOk does.
int simple_ok(const unsigned char *data, unsigned len, const unsigned char *chk) {
    if (chk[0] == 0 && chk[1] == 0)
        return 1;
    unsigned c0 = 0;
    unsigned c1 = 0;
    for (unsigned i = 0; i < len; ++i) {
        c0 = (c0 + data[i]) % 255;
        c1 = (c1 + c0) % 255;
    }
    return c0 == 0 && c1 == 0;
}

template <int (*verify)(const unsigned char *, unsigned, const unsigned char *)>
void Verify(benchmark::State &state) {
    Bytes unit = unit_of(state);
    auto len = static_cast<unsigned>(unit.size());
    computeIsoChksum(unit.data(), len, &unit[2]);
    for (auto _ : state) {
        if (verify(unit.data(), len, &unit[2]) != 1)
            state.SkipWithError("a good unit was refused");
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void Compute(benchmark::State &state) {
    Bytes unit = unit_of(state);
    for (auto _ : state) {
        computeIsoChksum(unit.data(), static_cast<unsigned>(unit.size()), &unit[2]);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}

void sizes(benchmark::internal::Benchmark *bench) {
    for (int size : {32, 256, 1500, 4102, 65536})
        bench->Arg(size);
}

BENCHMARK_TEMPLATE(Verify, isoChksumOk)->Apply(sizes);
BENCHMARK_TEMPLATE(Verify, simple_ok)->Apply(sizes);
BENCHMARK(Compute)->Apply(sizes);

}  // namespace

BENCHMARK_MAIN();
