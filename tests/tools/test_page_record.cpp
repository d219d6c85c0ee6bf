// The page record decoder and ostra-preview on a hand-made record.
#include "tools/page_record.h"

#include <gtest/gtest.h>
#include <png.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/filter_runner.h"

namespace {

// Three rows of stride 5: dot count, one margin byte, two bytes of pixels.
// LabelMark, label 576 x 399, gap 23, page 258 (0x0102).
const std::vector<uint8_t> kRecord = {
    'S',  'I',  'Z',  2,    0x40, 0x02, 0x8F, 0x01, 0x17, 0x00, 0,  0, 0x02, 0x01, 0x1D,
    0x76, 0x30, 0x00, 5,    0,    3,    0,  // GS v 0
    2,    0,    0,    0x80, 0x01, 0,    0,    0,    0,    0,    12, 0, 0,    0xFF, 0x0F};
const char kPicture[] = "........X..............X................................XXXXXXXX....XXXX";

TEST(PageRecord, DecodesAndRejectsDamageNamingTheFault) {
  PageRecord rec;
  std::string error;
  ASSERT_TRUE(decodePageRecord(kRecord, &rec, &error)) << error;
  EXPECT_EQ(std::vector<int>({rec.media, rec.labelWidth, rec.labelHeight, rec.gapHeight,
                              rec.pageNumber, rec.stride, rec.rows, int(rec.blackDots)}),
            std::vector<int>({2, 576, 399, 23, 258, 5, 3, 14}));
  for (size_t i = 0; i < 72; ++i)
    EXPECT_EQ(rec.dots.at(i), kPicture[i] == 'X') << i;
  const std::pair<std::function<void(std::vector<uint8_t>&)>, const char*> cases[] = {
      {[](auto& f) { f.resize(21); }, "21 bytes, shorter than the 22-byte header"},
      {[](auto& f) { f[1] = 'X'; }, "no \"SIZ\" label block: file starts 53 58 5A"},
      {[](auto& f) { f[15] = 0x77; }, "found 1D 77 30 00"},
      {[](auto& f) { f.resize(35); }, "truncated in row 2: 3 rows of 5 bytes need 37 bytes"},
      {[](auto& f) { f.push_back(0); }, "1 trailing byte(s) after 3 rows"},
      {[](auto& f) { f[29] = 0x01; }, "row 1 (offset 27): dot count 0 but 1 bits"},
  };
  for (const auto& [damage, reason] : cases) {
    std::vector<uint8_t> file = kRecord;
    damage(file);
    EXPECT_FALSE(decodePageRecord(file, &rec, &error)) << reason;
    EXPECT_NE(error.find(reason), std::string::npos) << error;
  }
}

TEST(PageRecord, PreviewDrawsTheDotsAndRefusesABrokenRecord) {
  const std::string dir = testWorkDir();
  std::ofstream(dir + "/good.dat")
      .write(reinterpret_cast<const char*>(kRecord.data()), kRecord.size());
  std::ofstream(dir + "/broken.dat").write(reinterpret_cast<const char*>(kRecord.data()), 30);
  const auto run = [&](const std::string& args) {
    return WEXITSTATUS(
        system(("cd '" + dir + "' && '" OSTRA_PREVIEW_PATH "' " + args + " >out.txt 2>/dev/null")
                   .c_str()));
  };
  EXPECT_EQ(run("--dpi 300 -o . good.dat broken.dat"), 1);
  EXPECT_EQ(readFile(dir + "/out.txt"),
            "good.dat: page 258, LabelMark, label 576 x 399 dots (48.8 x 33.8 mm), gap 23 dots "
            "(1.9 mm), raster 5 bytes x 3 rows, 14 black dots -> ./good.png\n");
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  ASSERT_TRUE(png_image_begin_read_from_file(&image, (dir + "/good.png").c_str()));
  image.format = PNG_FORMAT_GRAY;
  std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(image));
  ASSERT_TRUE(png_image_finish_read(&image, nullptr, pixels.data(), 0, nullptr));
  ASSERT_EQ(pixels.size(), 72u);
  for (size_t i = 0; i < 72; ++i)
    EXPECT_EQ(pixels[i], kPicture[i] == 'X' ? 0 : 255) << i;
}

}  // namespace
