// Parsing speed of the box tree on a movie with large sample tables.
#include <benchmark/benchmark.h>

#include "mp4/container.h"
#include "tests/support/files.h"
#include "tests/support/mp4_builder.h"

namespace {

using namespace sondex::test;

// A movie whose video track has `samples` sample sizes and `chunks` chunk
// offsets, its audio track a quarter of each.
Bytes tableHeavyMovie(uint32_t samples, uint32_t chunks) {
  auto stbl = [](uint32_t n, uint32_t c) {
    Box stsz = Box::full("stsz", 0, 0);
    stsz.u32(0).u32(n);
    for (uint32_t i = 0; i < n; ++i) stsz.u32(1000 + i % 977);
    Box stco = Box::full("stco", 0, 0);
    stco.u32(c);
    for (uint32_t i = 0; i < c; ++i) stco.u32(4096 + i * 1000);
    Box stts = Box::full("stts", 0, 0);
    stts.u32(1).u32(n).u32(1001);
    Box stsc = Box::full("stsc", 0, 0);
    stsc.u32(1).u32(1).u32(n / (c ? c : 1)).u32(1);
    return concat({stts.build(), stsc.build(), stsz.build(), stco.build()});
  };
  return concat(
      {Box("ftyp").str("isom").u32(0).build(),
       Box("moov")
           .child(mvhd(1000, 3600000))
           .child(videoTrak(3840, 1920, Box::full("stsd", 0, 0).u32(1).child(avc1(3840, 1920)), stbl(samples, chunks)))
           .child(videoTrak(0, 0, Box::full("stsd", 0, 0).u32(0), stbl(samples / 4, chunks / 4)))
           .build(),
       Box("mdat").zeros(64).build()});
}

void BM_Container_Attach(benchmark::State& state) {
  TempDir dir;
  const Bytes bytes = tableHeavyMovie(static_cast<uint32_t>(state.range(0)), 4000);
  const std::wstring path = widen(dir.write("movie.mp4", bytes));
  for (auto _ : state) {
    MP4::Container movie;
    benchmark::DoNotOptimize(movie.attach(path, ~0ULL));
  }
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_Container_Attach)->Arg(1000000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
