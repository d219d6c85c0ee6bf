#include "tools/page_record.h"

#include <gtest/gtest.h>
#include <png.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <set>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Three rows of stride 5: dot count, one margin byte, two bytes of pixels.
// LabelMark, label 576 x 399, gap 23, page 258 (0x0102).
const std::vector<uint8_t> kRecord = {
    'S',  'I',  'Z',  2,    0x40, 0x02, 0x8F, 0x01, 0x17, 0x00, 0, 0, 0x02, 0x01,  // label block
    0x1D, 0x76, 0x30, 0x00, 5,    0,    3,    0,                                   // raster command
    2,    0,    0,    0x80, 0x01,                                                  // row 0
    0,    0,    0,    0x00, 0x00,                                                  // row 1
    12,   0,    0,    0xFF, 0x0F};                                                 // row 2
const char* const kPicture[] = {"........X..............X",                        //
                                "........................",                        //
                                "........XXXXXXXX....XXXX"};

TEST(DecodePageRecord, ReadsHeaderDotsAndTotal) {
  PageRecord rec;
  std::string error;
  ASSERT_TRUE(decodePageRecord(kRecord, &rec, &error)) << error;
  EXPECT_EQ(rec.media, 2);
  EXPECT_EQ(mediaName(rec.media), "LabelMark");
  EXPECT_EQ(rec.labelWidth, 576);
  EXPECT_EQ(rec.labelHeight, 399);
  EXPECT_EQ(rec.gapHeight, 23);
  EXPECT_EQ(rec.pageNumber, 258);
  EXPECT_EQ(rec.stride, 5);
  EXPECT_EQ(rec.rows, 3);
  ASSERT_EQ(rec.width, 24u);
  ASSERT_EQ(rec.dots.size(), 72u);
  for (int r = 0; r < 3; ++r) {
    std::string row;
    for (int x = 0; x < 24; ++x)
      row += rec.dots[r * 24 + x] ? 'X' : '.';
    EXPECT_EQ(row, kPicture[r]) << "row " << r;
  }
  EXPECT_EQ(rec.blackDots, 14u);
}

TEST(DecodePageRecord, RejectsMalformedFilesNamingTheFault) {
  const struct {
    const char* name;
    std::function<void(std::vector<uint8_t>&)> damage;
    const char* reason;
  } cases[] = {
      {"short", [](auto& f) { f.resize(21); }, "21 bytes, shorter than the 22-byte header"},
      {"magic", [](auto& f) { f[1] = 'X'; }, "no \"SIZ\" label block: file starts 53 58 5A"},
      {"command", [](auto& f) { f[15] = 0x77; }, "found 1D 77 30 00"},
      {"stride 0", [](auto& f) { f[18] = 0; }, "row stride 0 is below"},
      {"no rows", [](auto& f) { f[20] = 0; }, "no rows"},
      {"mid-row", [](auto& f) { f.resize(35); },
       "truncated in row 2: 3 rows of 5 bytes need 37 bytes, file has 35"},
      {"huge", [](auto& f) { f[18] = f[19] = f[20] = f[21] = 0xFF; }, "need 4294836247 bytes"},
      {"trailing", [](auto& f) { f.push_back(0); }, "1 trailing byte(s) after 3 rows"},
      {"count", [](auto& f) { f[32] = 11; }, "row 2 (offset 32): dot count 11 but 12 bits set"},
      {"margin bit", [](auto& f) { f[29] = 0x01; }, "row 1 (offset 27): dot count 0 but 1 bits"},
  };
  for (const auto& c : cases) {
    std::vector<uint8_t> file = kRecord;
    c.damage(file);
    PageRecord rec;
    std::string error;
    EXPECT_FALSE(decodePageRecord(file, &rec, &error)) << c.name;
    EXPECT_NE(error.find(c.reason), std::string::npos) << c.name << ": " << error;
  }
}

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class PreviewTool : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::path work = fs::path(OSTRA_PREVIEW_PATH).parent_path() / "test-work";
    fs::create_directories(work);
    std::string pattern = (work / "ostra-preview-XXXXXX").string();
    ASSERT_NE(mkdtemp(&pattern[0]), nullptr);
    dir_ = pattern;
    std::ofstream(dir_ / kGood, std::ios::binary)
        .write(reinterpret_cast<const char*>(kRecord.data()), kRecord.size());
    std::ofstream(dir_ / "broken.dat", std::ios::binary)
        .write(reinterpret_cast<const char*>(kRecord.data()), 30);
  }
  void TearDown() override {
    if (!HasFailure())
      fs::remove_all(dir_);
  }
  // Runs the tool inside the work directory; returns its exit status.
  int run(const std::string& args) {
    const std::string command = "cd '" + dir_.string() + "' && '" OSTRA_PREVIEW_PATH "' " + args +
                                " >../" + dir_.filename().string() + ".out 2>../" +
                                dir_.filename().string() + ".err";
    const int status = std::system(command.c_str());
    out_ = slurp(dir_.string() + ".out");
    err_ = slurp(dir_.string() + ".err");
    fs::remove(dir_.string() + ".out");
    fs::remove(dir_.string() + ".err");
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  static constexpr const char* kGood = "page_0258_jobid_000042_0000.dat";
  fs::path dir_;
  std::string out_, err_;
};

TEST_F(PreviewTool, WritesPngAndSummaryAndReportsBadFile) {
  EXPECT_EQ(run(std::string(kGood) + " broken.dat"), 1);
  EXPECT_EQ(out_,
            "page_0258_jobid_000042_0000.dat: page 258, LabelMark, label 576 x 399 dots "
            "(72.1 x 49.9 mm), gap 23 dots (2.9 mm), raster 5 bytes x 3 rows, 14 black dots -> "
            "page_0258_jobid_000042_0000.png\n");
  EXPECT_EQ(err_,
            "ostra-preview: broken.dat: truncated in row 1: 3 rows of 5 bytes need 37 "
            "bytes, file has 30\n");
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir_))
    names.insert(entry.path().filename());
  EXPECT_EQ(names, (std::set<std::string>{kGood, "broken.dat", "page_0258_jobid_000042_0000.png"}));

  const std::string png = (dir_ / "page_0258_jobid_000042_0000.png").string();
  const std::string raw = slurp(png);
  ASSERT_GT(raw.size(), 26u);
  EXPECT_EQ(raw[24], 8) << "bit depth";
  EXPECT_EQ(raw[25], 0) << "colour type: grayscale";
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&image, png.c_str())) << image.message;
  ASSERT_EQ(image.width, 24u);
  ASSERT_EQ(image.height, 3u);
  image.format = PNG_FORMAT_GRAY;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
  ASSERT_TRUE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr)) << image.message;
  for (int r = 0; r < 3; ++r)
    for (int x = 0; x < 24; ++x)
      EXPECT_EQ(pixels[r * 24 + x], kPicture[r][x] == 'X' ? 0 : 255) << x << "," << r;
}

TEST_F(PreviewTool, HonoursDpiAndOutputDirectoryAndRejectsBadUsage) {
  fs::create_directory(dir_ / "sub");
  EXPECT_EQ(run(std::string("--dpi 300 -o sub ") + kGood), 0) << err_;
  EXPECT_EQ(out_.substr(out_.find("dots (")),
            "dots (48.8 x 33.8 mm), gap 23 dots (1.9 mm), raster 5 bytes x 3 rows, 14 black dots "
            "-> sub/page_0258_jobid_000042_0000.png\n");
  EXPECT_TRUE(fs::exists(dir_ / "sub/page_0258_jobid_000042_0000.png"));
  EXPECT_FALSE(fs::exists(dir_ / "page_0258_jobid_000042_0000.png"));

  for (const char* args : {"", "--dpi 0 x.dat", "--dpi 2x x.dat", "-o", "--bogus x.dat"}) {
    EXPECT_EQ(run(args), 2) << args;
    EXPECT_NE(err_.find("usage: ostra-preview"), std::string::npos) << args;
    EXPECT_EQ(out_, "") << args;
  }
}

}  // namespace
