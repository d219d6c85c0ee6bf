// Time of each stage of the page pipeline on real pages: every halftone
// method (fast and reference), each step of the stencil chain, the 1-bit
// packing, the page record encoder and the debug BMP writer.
//   OSTRA_BENCH_PAGES="name=raster ..." build/ostra_bench
// takes the first page of each raster (bench/run.sh makes them with CUPS);
// without it a synthetic 4 x 6 in gradient stands in.
#include <benchmark/benchmark.h>
#include <cups/raster.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "enhance/rv_enhance.h"
#include "printer/ostra_printer.h"

namespace {

struct Page {
  std::string name;
  int width = 0, height = 0, stride = 0;
  std::vector<unsigned char> bytes;
};

Page readFirstPage(const std::string& name, const std::string& path) {
  Page page;
  page.name = name;
  const int fd = open(path.c_str(), O_RDONLY);
  cups_raster_t* raster = fd < 0 ? nullptr : cupsRasterOpen(fd, CUPS_RASTER_READ);
  cups_page_header2_t h;
  if (raster != nullptr && cupsRasterReadHeader2(raster, &h) && h.cupsBitsPerPixel == 8) {
    page.width = static_cast<int>(h.cupsWidth);
    page.height = static_cast<int>(h.cupsHeight);
    page.stride = static_cast<int>(h.cupsBytesPerLine);
    page.bytes.resize(static_cast<size_t>(page.stride) * page.height);
    if (cupsRasterReadPixels(raster, page.bytes.data(), static_cast<unsigned>(page.bytes.size())) ==
        0)
      page.bytes.clear();
  }
  if (raster != nullptr)
    cupsRasterClose(raster);
  if (fd >= 0)
    close(fd);
  if (page.bytes.empty()) {
    fprintf(stderr, "ostra_bench: no 8-bit page in %s\n", path.c_str());
    exit(2);
  }
  return page;
}

std::vector<Page> loadPages() {
  std::vector<Page> pages;
  const char* spec = getenv("OSTRA_BENCH_PAGES");
  std::istringstream list(spec != nullptr ? spec : "");
  for (std::string item; list >> item;) {
    const size_t eq = item.find('=');
    pages.push_back(readFirstPage(item.substr(0, eq), item.substr(eq + 1)));
  }
  if (pages.empty()) {
    Page label;
    label.name = "gradient-4x6";
    label.width = label.stride = 812;
    label.height = 1218;
    label.bytes.resize(812 * 1218);
    for (size_t i = 0; i < label.bytes.size(); ++i)
      label.bytes[i] = static_cast<unsigned char>(i % 812 + i / 812);
    pages.push_back(label);
  }
  return pages;
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

void pixels(benchmark::State& state, const Page& page) {
  state.SetItemsProcessed(state.iterations() * page.width * page.height);
}

void halftone(benchmark::State& state, const Page& page, long method, KiwaPixelPath path) {
  CxImage image;
  for (auto _ : state) {
    state.PauseTiming();
    image.CreateFromArray(page.bytes.data(), page.width, page.height, 8, page.stride, false);
    state.ResumeTiming();
    if (path != KiwaPixelPath::Reference) {
      image.Dither8(method);
    } else {
      image.Dither(method);
      image.IncreaseBpp(8);
    }
  }
  pixels(state, page);
}

// The stencil chain's steps, each on the output of the steps before it.
void stencilStep(benchmark::State& state, const Page& page, int step, KiwaPixelPath path) {
  kiwaSetPixelPath(path);
  RVImage gray(page.width, page.height, RV_IMG_GRAY);
  for (int y = 0; y < page.height; ++y)
    memcpy(gray.data() + static_cast<size_t>(y) * page.width,
           page.bytes.data() + static_cast<size_t>(y) * page.stride, page.width);
  const int t = thresh_global_moments(gray);
  RVImage toned = gray;
  enh_piecewise_gamma(toned, 64, 0.85f, 0.7f);
  const RVImage sharp =
      step == 5 ? enh_unsharp_mask(toned, 300.0f, 11) : RVImage(1, 1, RV_IMG_GRAY);
  for (auto _ : state) {
    switch (step) {
      case 0:
        benchmark::DoNotOptimize(cvtGray(gray).data());
        break;
      case 1:
        benchmark::DoNotOptimize(thresh_global_moments(gray));
        break;
      case 2: {
        state.PauseTiming();
        RVImage copy = gray;
        state.ResumeTiming();
        enh_piecewise_gamma(copy, 64, 0.85f, 0.7f);
        break;
      }
      case 3:
        benchmark::DoNotOptimize(enh_gaussian_filter_fast(toned, 11, 3.0).data());
        break;
      case 4: {
        // The chain hands its pages over, and the fast path works in them.
        state.PauseTiming();
        RVImage copy = toned;
        state.ResumeTiming();
        benchmark::DoNotOptimize(enh_unsharp_mask(std::move(copy), 300.0f, 11).data());
        break;
      }
      default: {
        state.PauseTiming();
        RVImage copy = sharp;
        state.ResumeTiming();
        benchmark::DoNotOptimize(edf_cus(std::move(copy), t).data());
        break;
      }
    }
  }
  kiwaSetPixelPath(KiwaPixelPath::Fast);
  pixels(state, page);
}

// A two-level page as the printer language gets it: 0 or 1 per pixel.
std::vector<unsigned char> twoLevel(const Page& page) {
  std::vector<unsigned char> levels(static_cast<size_t>(page.width) * page.height);
  for (int y = 0; y < page.height; ++y)
    for (int x = 0; x < page.width; ++x)
      levels[static_cast<size_t>(y) * page.width + x] =
          page.bytes[static_cast<size_t>(y) * page.stride + x] < 129 ? 0 : 1;
  return levels;
}

void packing(benchmark::State& state, const Page& page, KiwaPixelPath path) {
  QuietLog quiet;
  PrinterState printerState;
  OstraPrinter printer(printerState);
  const std::vector<unsigned char> levels = twoLevel(page);
  std::vector<unsigned char> buf;
  kiwaSetPixelPath(path);
  for (auto _ : state) {
    state.PauseTiming();
    buf = levels;
    state.ResumeTiming();
    benchmark::DoNotOptimize(printer.GrayToMono(page.width, page.height, buf.data()));
  }
  kiwaSetPixelPath(KiwaPixelPath::Fast);
  pixels(state, page);
}

void recordEncoder(benchmark::State& state, const Page& page) {
  QuietLog quiet;
  PrinterState printerState;
  OstraPrinter printer(printerState);
  Settings settings{};
  settings.MaxMediaWidth = static_cast<float>(page.width + 64);
  printer.setSettings(&settings);
  std::vector<unsigned char> packed = twoLevel(page);
  const long size = printer.GrayToMono(page.width, page.height, packed.data());
  const SIZEL extent{page.width, page.height};
  for (auto _ : state) {
    const long need = printer.CalcBlackPoints(packed.data(), size, extent, nullptr, 0);
    std::vector<unsigned char> records(static_cast<size_t>(need));
    benchmark::DoNotOptimize(
        printer.CalcBlackPoints(packed.data(), size, extent, records.data(), need));
  }
  pixels(state, page);
}

void bmpWriter(benchmark::State& state, const Page& page) {
  QuietLog quiet;
  const std::string dir = "/dev/shm/ostra-bench-" + std::to_string(getpid());
  std::filesystem::create_directories(dir);
  PrinterState printerState;
  OstraPrinter printer(printerState, PrinterPaths{dir, dir});
  for (auto _ : state) {
    printer.saveImage("prnimg_", page.bytes.data(), page.stride, page.height, page.width, 8);
    state.PauseTiming();
    printer.discardPageImages();
    state.ResumeTiming();
  }
  std::filesystem::remove_all(dir);
  pixels(state, page);
}

const char* const kStencilSteps[] = {"cvtGray",
                                     "thresh_global_moments",
                                     "enh_piecewise_gamma",
                                     "enh_gaussian_filter_fast",
                                     "enh_unsharp_mask",
                                     "edf_cus"};

void registerAll(const std::vector<Page>& pages) {
  const struct {
    KiwaPixelPath path;
    const char* name;
  } paths[] = {{KiwaPixelPath::Fast, "fast"},
               {KiwaPixelPath::Baseline, "baseline"},
               {KiwaPixelPath::Reference, "reference"}};
  for (const Page& page : pages) {
    for (const auto& p : paths) {
      const std::string tail = "/" + page.name + "/" + p.name;
      for (long m = 0; m < 8; ++m) {
        benchmark::RegisterBenchmark(("halftone/" + std::to_string(m) + tail).c_str(), halftone,
                                     page, m, p.path);
      }
      for (int step = 0; step < 6; ++step) {
        benchmark::RegisterBenchmark(("stencil/" + std::string(kStencilSteps[step]) + tail).c_str(),
                                     stencilStep, page, step, p.path);
      }
      benchmark::RegisterBenchmark(("GrayToMono" + tail).c_str(), packing, page, p.path);
    }
    benchmark::RegisterBenchmark(("CalcBlackPoints/" + page.name).c_str(), recordEncoder, page);
    benchmark::RegisterBenchmark(("saveImage/" + page.name).c_str(), bmpWriter, page);
  }
}

}  // namespace

int main(int argc, char** argv) {
  static const std::vector<Page> pages = loadPages();
  registerAll(pages);
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
