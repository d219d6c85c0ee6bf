#include "app/app_image.h"

// jpeglib.h needs FILE and size_t declared first.
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <jpeglib.h>
#include <png.h>

namespace {

// An image as PAPPL lays it on the page: rows of gray (depth 1) or RGB
// (depth 3) bytes. The decoders below fill it in plain C style: they longjmp
// out of libpng and libjpeg on errors, past which no destructor may live.
struct Decoded {
  unsigned char* pixels;
  int width, height, depth, ppi;
  bool tooLarge;
  char message[JMSG_LENGTH_MAX + 64];
};

bool fits(Decoded* image, size_t width, size_t height) {
  image->tooLarge = width < 1 || height < 1 || width > kAppImageMaxSide ||
                    height > kAppImageMaxSide || width * height > kAppImageMaxPixels;
  if (image->tooLarge)
    snprintf(image->message, sizeof(image->message),
             "%zu x %zu pixels is more than this printer prints (at most %d on a side, %zu in "
             "all)",
             width, height, kAppImageMaxSide, kAppImageMaxPixels);
  return !image->tooLarge;
}

void pngError(png_structp png, png_const_charp message) {
  auto* image = static_cast<Decoded*>(png_get_error_ptr(png));
  snprintf(image->message, sizeof(image->message), "%s", message);
  png_longjmp(png, 1);
}

void pngWarning(png_structp /*png*/, png_const_charp /*message*/) {}

// Reads the PNG in `file` as PAPPL 1.3.1 does, but leaves at its first error:
// PAPPL's reader, sent back to its own clean-up by an error there, loops on
// the same error for good (fixed upstream in PAPPL 1.4.10).
bool readPng(FILE* file, Decoded* image) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, image, pngError, pngWarning);
  png_infop info = png != nullptr ? png_create_info_struct(png) : nullptr;
  png_bytep* volatile rows = nullptr;
  if (info == nullptr || setjmp(png_jmpbuf(png))) {
    if (info == nullptr)
      snprintf(image->message, sizeof(image->message), "no memory for the PNG reader");
    png_destroy_read_struct(&png, &info, nullptr);
    free(rows);
    free(image->pixels);
    image->pixels = nullptr;
    return false;
  }
  png_init_io(png, file);
  png_set_option(png, PNG_SKIP_sRGB_CHECK_PROFILE, PNG_OPTION_ON);
  png_read_info(png, info);
  const png_uint_32 width = png_get_image_width(png, info),
                    height = png_get_image_height(png, info);
  const int colorType = png_get_color_type(png, info);
  image->depth = (colorType & PNG_COLOR_MASK_COLOR) != 0 ? 3 : 1;
  image->ppi = static_cast<int>(png_get_x_pixels_per_inch(png, info));
  if (!fits(image, width, height))
    png_longjmp(png, 1);
  if (image->ppi != static_cast<int>(png_get_y_pixels_per_inch(png, info)))
    png_error(png, "pixels that are not square cannot be printed");
  image->width = static_cast<int>(width);
  image->height = static_cast<int>(height);
  if (png_get_valid(png, info, PNG_INFO_tRNS))
    png_set_tRNS_to_alpha(png);
  if (png_get_bit_depth(png, info) > 8)
    png_set_scale_16(png);
  if (png_get_bit_depth(png, info) < 8)
    png_set_packing(png);
  if ((colorType & PNG_COLOR_MASK_PALETTE) != 0)
    png_set_palette_to_rgb(png);
  png_color_16 white{};
  white.red = white.green = white.blue = 65535;
  png_set_background(png, &white, PNG_BACKGROUND_GAMMA_SCREEN, 0, 1);
  const size_t stride = static_cast<size_t>(width) * static_cast<size_t>(image->depth);
  image->pixels = static_cast<unsigned char*>(calloc(height, stride));
  rows = static_cast<png_bytep*>(calloc(height, sizeof(png_bytep)));
  if (image->pixels == nullptr || rows == nullptr)
    png_error(png, "no memory for the image");
  for (png_uint_32 y = 0; y < height; ++y)
    rows[y] = image->pixels + y * stride;
  for (int pass = png_set_interlace_handling(png); pass > 0; --pass)
    png_read_rows(png, rows, nullptr, height);
  png_destroy_read_struct(&png, &info, nullptr);
  free(rows);
  return true;
}

struct JpegErrors {
  jpeg_error_mgr manager;
  jmp_buf leave;
  Decoded* image;
};

void jpegError(j_common_ptr jpeg) {
  auto* errors = reinterpret_cast<JpegErrors*>(jpeg->err);
  (*jpeg->err->format_message)(jpeg, errors->image->message);
  longjmp(errors->leave, 1);
}

// A damaged JPEG only warns, and libjpeg fills what is missing with gray: a
// print of that is not the document, so a warning ends it too.
void jpegMessage(j_common_ptr jpeg, int level) {
  if (level < 0)
    jpegError(jpeg);
}

bool readJpeg(FILE* file, Decoded* image) {
  jpeg_decompress_struct jpeg{};
  JpegErrors errors{};
  errors.image = image;
  jpeg.err = jpeg_std_error(&errors.manager);
  errors.manager.error_exit = jpegError;
  errors.manager.emit_message = jpegMessage;
  if (setjmp(errors.leave)) {
    jpeg_destroy_decompress(&jpeg);
    free(image->pixels);
    image->pixels = nullptr;
    return false;
  }
  jpeg_create_decompress(&jpeg);
  jpeg_stdio_src(&jpeg, file);
  jpeg_read_header(&jpeg, TRUE);
  // The printer is monochrome: PAPPL asks libjpeg for gray.
  jpeg.quantize_colors = FALSE;
  jpeg.out_color_space = JCS_GRAYSCALE;
  jpeg.out_color_components = jpeg.output_components = 1;
  jpeg_calc_output_dimensions(&jpeg);
  image->depth = 1;
  if (!fits(image, jpeg.output_width, jpeg.output_height))
    longjmp(errors.leave, 1);
  image->width = static_cast<int>(jpeg.output_width);
  image->height = static_cast<int>(jpeg.output_height);
  image->pixels = static_cast<unsigned char*>(
      malloc(static_cast<size_t>(image->width) * static_cast<size_t>(image->height)));
  if (image->pixels == nullptr) {
    snprintf(image->message, sizeof(image->message), "no memory for the image");
    longjmp(errors.leave, 1);
  }
  jpeg_start_decompress(&jpeg);
  while (jpeg.output_scanline < jpeg.output_height) {
    JSAMPROW row = image->pixels + static_cast<size_t>(jpeg.output_scanline) * jpeg.output_width;
    jpeg_read_scanlines(&jpeg, &row, 1);
  }
  const int unit = jpeg.density_unit;
  const int x = unit == 1 ? jpeg.X_density : unit == 2 ? jpeg.X_density * 254 / 100 : 0;
  const int y = unit == 1 ? jpeg.Y_density : unit == 2 ? jpeg.Y_density * 254 / 100 : 0;
  image->ppi = x;
  jpeg_finish_decompress(&jpeg);
  jpeg_destroy_decompress(&jpeg);
  if (x != y) {
    snprintf(image->message, sizeof(image->message),
             "pixels that are not square cannot be printed");
    free(image->pixels);
    image->pixels = nullptr;
    return false;
  }
  return true;
}

// Decodes the job's document with `read` and lays it on the page as PAPPL's
// own image filters do.
bool printImage(pappl_job_t* job, pappl_device_t* device, const char* kind,
                bool (*read)(FILE*, Decoded*), bool smoothing) {
  const char* name = papplJobGetFilename(job);
  FILE* file = name != nullptr ? fopen(name, "rb") : nullptr;
  Decoded image{};
  const bool readOk = file != nullptr && read(file, &image);
  if (file != nullptr)
    fclose(file);
  if (!readOk) {
    papplJobSetReasons(job,
                       image.tooLarge ? PAPPL_JREASON_DOCUMENT_UNPRINTABLE_ERROR
                                      : PAPPL_JREASON_DOCUMENT_FORMAT_ERROR,
                       PAPPL_JREASON_NONE);
    papplLogJob(job, PAPPL_LOGLEVEL_ERROR, "The %s cannot be printed: %s.", kind,
                file == nullptr ? "the document is gone" : image.message);
    return false;
  }
  papplLogJob(job, PAPPL_LOGLEVEL_INFO, "The %s is %d x %d pixels at %d dpi.", kind, image.width,
              image.height, image.ppi);
  pappl_pr_options_t* options = papplJobCreatePrintOptions(job, 1, image.depth == 3);
  const bool printed = papplJobFilterImage(job, device, options, image.pixels, image.width,
                                           image.height, image.depth, image.ppi, smoothing);
  papplJobDeletePrintOptions(options);
  free(image.pixels);
  return printed;
}

}  // namespace

bool appFilterPng(pappl_job_t* job, pappl_device_t* device, void* /*data*/) {
  return printImage(job, device, "PNG image", readPng, false);
}

bool appFilterJpeg(pappl_job_t* job, pappl_device_t* device, void* /*data*/) {
  return printImage(job, device, "JPEG image", readJpeg, true);
}
