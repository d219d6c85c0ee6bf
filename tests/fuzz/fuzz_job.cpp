// One whole filter job per input, in process: the first three bytes pick the
// PPD, the queue name and the options (past the table, the text up to the first
// newline), the rest is the raster. Its files go to a directory emptied per run.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "common/kiwa_common.h"
#include "filter/filter_job.h"

namespace fs = std::filesystem;

namespace {

const char* const kPpds[] = {OSTRA_SOURCE_DIR "/ppd/ostra.ppd",
                             OSTRA_FUZZ_DIR "/ppd/zero-max-width.ppd",
                             OSTRA_FUZZ_DIR "/ppd/no-defaults.ppd",
                             OSTRA_FUZZ_DIR "/ppd/odd-numbers.ppd", "/nonexistent.ppd"};
const std::string kLongName(300, 'q');
const char* const kPrinters[] = {"ostra",           "x/y", "../../tmp/escaped",
                                 kLongName.c_str(), "",    nullptr};
const char* const kOptions[] = {
    "",
    "PageSize=w144h72 Resolution=300dpi",
    "PageSize=w142h85 Resolution=300dpi HalftoneType=FloydSteinberg Brightness=-75",
    "HalftoneType=Tattoo MirrorImage=True NegativeImage=True",
    "HalftoneType=Tattoo_Q7 Brightness=100 Darkness=Light",
    "HalftoneType=Ordered VBarcodeDensity=1 Darkness=Dark PaperType=Continue",
    "HalftoneType=StevensonArce VBarcodeDensity=2 PrintSpeed=6 Origin=Bottom",
    "PageSize=Letter HalftoneType=Stucki GapsHeight=0"};

struct Sandbox {
  std::string root, work, input, geometryLog;
  FilterPaths paths;
  Sandbox() {
    // TMPDIR on tmpfs (/dev/shm) makes the many small files cheap.
    root = std::string(getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp") + "/ostra-fuzz-XXXXXX";
    if (mkdtemp(root.data()) == nullptr || freopen("/dev/null", "w", stdout) == nullptr)
      abort();
    work = root + "/w", input = root + "/in.ras", geometryLog = root + "/geometry.log";
    paths.pageGeometryLog = geometryLog.c_str();
    // A queue name climbing two levels out of the spool lands in work/tmp.
    paths.printer.spoolDir = work + "/tmp/spool";
    paths.printer.imageDir = work + "/tmp/img";
    kiwaLogSetStream(fopen("/dev/null", "w"));
  }
  ~Sandbox() { fs::remove_all(root); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Sandbox box;
  if (size < 3)
    return 0;
  size_t start = 3;
  std::string options;
  if (data[2] < std::size(kOptions)) {
    options = kOptions[data[2]];
  } else {
    const void* nl = memchr(data + 3, '\n', size - 3);
    start = nl ? static_cast<const uint8_t*>(nl) - data + 1 : size;
    options.assign(reinterpret_cast<const char*>(data + 3), start - 3 - (nl ? 1 : 0));
  }
  std::ofstream(box.input, std::ios::binary)
      .write(reinterpret_cast<const char*>(data + start),
             static_cast<std::streamsize>(size - start));
  setenv("PPD", kPpds[data[0] % std::size(kPpds)], 1);
  const char* printer = kPrinters[data[1] % std::size(kPrinters)];
  printer ? setenv("PRINTER", printer, 1) : unsetenv("PRINTER");
  fs::create_directories(box.paths.printer.imageDir);
  std::string args[] = {"rastertoostra", "7", "user", "title", "1", options, box.input};
  char* argv[] = {args[0].data(), args[1].data(), args[2].data(), args[3].data(),
                  args[4].data(), args[5].data(), args[6].data()};
  // A finished job says 0 or 1, whatever it was fed.
  if (runFilterJob(7, argv, box.paths) > 1)
    abort();
  fs::remove_all(box.work);
  return 0;
}

#ifdef OSTRA_FUZZ_REPLAY
// Feeds every file of the directories given to the target once; a single file
// is cut short, and flipped a byte at a time, all along its length.
int main(int argc, char* argv[]) {
  int inputs = 0;
  const auto run = [&](const std::string& bytes) {
    ++inputs;
    LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  };
  const auto read = [](const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string{std::istreambuf_iterator<char>(in), {}};
  };
  for (int i = 1; i < argc; ++i) {
    if (fs::is_directory(argv[i])) {
      for (const auto& entry : fs::directory_iterator(argv[i]))
        run(read(entry.path()));
      continue;
    }
    const std::string bytes = read(argv[i]);
    for (size_t at = 3; at < bytes.size(); at += 41) {
      std::string flipped = bytes;
      flipped[at] = static_cast<char>(~flipped[at]);
      run(bytes.substr(0, at));
      run(flipped);
    }
  }
  return inputs > 0 ? 0 : 1;
}
#endif
