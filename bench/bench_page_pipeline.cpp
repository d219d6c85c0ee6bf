// Time of the page pipeline on a 4 x 6 in label at 203 dpi, per halftone
// method, and of the 1-bit packing; the baseline for any faster path.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "printer/ostra_printer.h"

namespace {

constexpr int kWidth = 812;
constexpr int kHeight = 1218;

std::vector<unsigned char> labelPage() {
  std::vector<unsigned char> page(static_cast<size_t>(kWidth) * kHeight);
  for (int y = 0; y < kHeight; ++y) {
    for (int x = 0; x < kWidth; ++x)
      page[y * kWidth + x] = static_cast<unsigned char>((x + y) & 0xFF);
  }
  return page;
}

// Logs go nowhere, so the measurement is the pipeline's own work.
struct QuietLog {
  QuietLog() : sink(fopen("/dev/null", "w")) { kiwaLogSetStream(sink); }
  ~QuietLog() {
    kiwaLogSetStream(nullptr);
    fclose(sink);
  }
  FILE* sink;
};

void BM_PageProcess(benchmark::State& state) {
  QuietLog quiet;
  PrinterState printerState;
  OstraPrinter printer(printerState);
  const std::vector<unsigned char> page = labelPage();
  std::vector<unsigned char> out(2 * page.size());
  const auto method = static_cast<DitherType>(state.range(0));
  printer.setHalftoneType(method);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        printer.PageProcess(method, page.data(), kWidth, kWidth, kHeight, out.data(), out.size()));
  }
  state.SetItemsProcessed(state.iterations() * kWidth * kHeight);
}
BENCHMARK(BM_PageProcess)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);

void BM_GrayToMono(benchmark::State& state) {
  QuietLog quiet;
  PrinterState printerState;
  OstraPrinter printer(printerState);
  const std::vector<unsigned char> page = labelPage();
  std::vector<unsigned char> buf;
  for (auto _ : state) {
    state.PauseTiming();
    buf = page;
    state.ResumeTiming();
    benchmark::DoNotOptimize(printer.GrayToMono(kWidth, kHeight, buf.data()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(page.size()));
}
BENCHMARK(BM_GrayToMono)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
