#include <algorithm>
#include <memory>
#include <utility>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "common/kiwa_common.h"

#include "enhance/rv_enhance.h"

namespace {

struct Tap {
  int dx;
  int dy;
  float weight;
};

// The stencil kernel, in the order the error is handed on. The weights sum to
// about 0.94 and two are negative: a tuning, not to be normalised.
const Tap kStencilTaps[] = {
    {1, 0, 0.505786f},  {2, 0, -0.052926f}, {-2, 1, 0.226194f},
    {-1, 1, 0.128835f}, {0, 1, 0.243191f},  {1, 1, -0.111078f},
};

// A white pixel beside black is taken as having printed this much less, which
// thins white gaps between black strokes.
constexpr float kNeighbourBonus = 0.1427f;

constexpr int kFixedKnee = 64;
constexpr float kToneGamma1 = 0.85f;
constexpr float kToneGamma2 = 0.7f;
constexpr float kQ7Gamma1 = 0.5f;
constexpr float kQ7Gamma2 = 1.5f;
constexpr float kSharpenPercent = 300.0f;
constexpr int kSharpenSize = 11;

// The width times height product as a signed 32-bit value, wrapping.
bool isEmpty(const RVImage& image) {
  const int64_t product = static_cast<int64_t>(image.width) * image.height;
  return static_cast<int32_t>(static_cast<uint32_t>(product)) <= 0;
}

// The chain's gray page. A gray input is taken over rather than copied: the
// chain consumes what it is given.
RVImage grayPage(RVImage& image) {
  if (kiwaFastPixels() && image.color == RV_IMG_GRAY && image.channels == 1)
    return RVImage(std::move(image));
  return cvtGray(image);
}

RVImage stencil(RVImage& image, bool q7) {
  if (isEmpty(image))
    return RVImage(image);
  int t = 0;
  // The gray page is let go before the diffusion, which needs only the sharpened one.
  RVImage sharp = [&] {
    RVImage gray = grayPage(image);
    // Measured before the tone change; the first pipeline uses it only at the end.
    t = thresh_global_moments(gray);
    if (q7) {
      enh_piecewise_gamma(gray, t, kQ7Gamma1, kQ7Gamma2);
    } else {
      enh_piecewise_gamma(gray, kFixedKnee, kToneGamma1, kToneGamma2);
    }
    return enh_unsharp_mask(std::move(gray), kSharpenPercent, kSharpenSize);
  }();
  return edf_cus(std::move(sharp), t);
}

// One pixel of edf_cus: its level, then its error handed on to the taps that
// lie on the image (`here` is its row of pending error, `below` the next
// row's).
template <bool kCheck>
inline void diffusePixel(const RVImage& image, float limit, RVImage& out, float* here, float* below,
                         int x, int y) {
  const int w = image.width;
  const int h = image.height;
  const int64_t i = static_cast<int64_t>(y) * w + x;
  const float v = here[x] + static_cast<float>(image.data()[i]);
  float e;
  if (v > limit) {
    out.data()[i] = 255;
    if (y >= 1 && x >= 1 && y < h - 1 && x < w - 1) {
      float s = 0.0f;
      if (out.data()[i - 1] == 0)
        s += kNeighbourBonus;
      if (out.data()[i - w] == 0)
        s += kNeighbourBonus;
      e = (1.0f - s) * -255.0f + v;
    } else {
      e = v - 255.0f;
    }
  } else {
    out.data()[i] = 0;
    e = v;
  }
  for (const Tap& tap : kStencilTaps) {
    const int nx = x + tap.dx;
    float* row = tap.dy == 0 ? here : below;
    if (kCheck && (nx < 0 || nx >= w))
      continue;
    row[nx] += e * tap.weight;
  }
}

// The interior of one row, x in [2, w - 2): every tap lies on the row, so the
// pending error the next pixels need is carried in registers. Each cell still
// gets the same additions in the same order as in diffusePixel. The level is
// chosen without a branch: a photo's levels are too random to predict.
#if defined(__SSE2__)
template <bool kThin>
void diffuseInterior(const unsigned char* src, unsigned char* dst, const unsigned char* above,
                     float limit, float* here, float* below, int w) {
  const __m128 w0 = _mm_set_ss(kStencilTaps[0].weight), w1 = _mm_set_ss(kStencilTaps[1].weight),
               w2 = _mm_set_ss(kStencilTaps[2].weight), w3 = _mm_set_ss(kStencilTaps[3].weight),
               w4 = _mm_set_ss(kStencilTaps[4].weight), w5 = _mm_set_ss(kStencilTaps[5].weight);
  // What a printed pixel adds to its level, by how many of its left and upper
  // neighbours are white: (1 - s) * -255 with s the bonuses summed from 0.
  const float s1 = 0.0f + kNeighbourBonus;
  const float lift[3] = {(1.0f - 0.0f) * -255.0f, (1.0f - s1) * -255.0f,
                         (1.0f - (s1 + kNeighbourBonus)) * -255.0f};
  const __m128 level = _mm_set_ss(limit);
  __m128 cur = _mm_set_ss(here[2]), h1 = _mm_set_ss(here[3]);
  __m128 b2 = _mm_set_ss(below[0]), b1 = _mm_set_ss(below[1]), b0 = _mm_set_ss(below[2]);
  // The left neighbour's level stays a mask in a vector register: moving it
  // out to pick the lift would lengthen the chain from pixel to pixel.
  __m128 leftOn = _mm_castsi128_ps(_mm_cvtsi32_si128(dst[1] != 0 ? -1 : 0));
  for (int x = 2; x < w - 2; ++x) {
    const __m128 v = _mm_add_ss(cur, _mm_cvtsi32_ss(_mm_setzero_ps(), src[x]));
    const int upWhite = kThin ? static_cast<int>(above[x] == 0) : 0;
    const __m128 liftLeftOn = _mm_load_ss(&lift[upWhite]);
    const __m128 liftLeftOff = _mm_load_ss(&lift[kThin ? upWhite + 1 : 0]);
    const __m128 lifted =
        _mm_or_ps(_mm_and_ps(leftOn, liftLeftOn), _mm_andnot_ps(leftOn, liftLeftOff));
    const __m128 on = _mm_cmpgt_ss(v, level);
    const __m128 printed = _mm_add_ss(lifted, v);
    const __m128 e = _mm_or_ps(_mm_and_ps(on, printed), _mm_andnot_ps(on, v));
    leftOn = on;
    dst[x] = static_cast<unsigned char>(_mm_cvtsi128_si32(_mm_castps_si128(on)));
    cur = _mm_add_ss(h1, _mm_mul_ss(e, w0));
    h1 = _mm_add_ss(_mm_load_ss(&here[x + 2]), _mm_mul_ss(e, w1));
    _mm_store_ss(&below[x - 2], _mm_add_ss(b2, _mm_mul_ss(e, w2)));
    b2 = _mm_add_ss(b1, _mm_mul_ss(e, w3));
    b1 = _mm_add_ss(b0, _mm_mul_ss(e, w4));
    b0 = _mm_add_ss(_mm_setzero_ps(), _mm_mul_ss(e, w5));
  }
  const int end = w - 2;
  _mm_store_ss(&here[end], cur);
  _mm_store_ss(&here[end + 1], h1);
  _mm_store_ss(&below[end - 2], b2);
  _mm_store_ss(&below[end - 1], b1);
  _mm_store_ss(&below[end], b0);
}
#endif

// edf_cus with two rows of pending error instead of a page of them: a pixel's
// error reaches only its own row and the next, and every sum is built from
// the same additions in the same order.
void diffuseRows(const RVImage& image, float limit, RVImage& out) {
  const int w = image.width;
  const int h = image.height;
  auto rows = std::make_unique<float[]>(2 * static_cast<size_t>(w));
  float* here = rows.get();
  float* below = here + w;
  for (int y = 0; y < h; ++y) {
    // On the last row `below` takes what would fall off the image, unread.
    int x = 0;
    for (; x < 2 && x < w; ++x)
      diffusePixel<true>(image, limit, out, here, below, x, y);
#if defined(__SSE2__)
    if (w > 4) {
      const int64_t row = static_cast<int64_t>(y) * w;
      if (y >= 1 && y < h - 1)
        diffuseInterior<true>(image.data() + row, out.data() + row, out.data() + row - w, limit,
                              here, below, w);
      else
        diffuseInterior<false>(image.data() + row, out.data() + row, nullptr, limit, here, below,
                               w);
      x = w - 2;
    }
#endif
    for (; x < w - 2; ++x)
      diffusePixel<false>(image, limit, out, here, below, x, y);
    for (; x < w; ++x)
      diffusePixel<true>(image, limit, out, here, below, x, y);
    std::swap(here, below);
    std::fill(below, below + w, 0.0f);
  }
}

}  // namespace

RVImage edf_cus(const RVImage& image, int threshold) {
  const int w = image.width;
  const int h = image.height;
  RVImage out(w, h, RV_IMG_GRAY);
  const int64_t n = static_cast<int64_t>(w) * h;
  if (n <= 0)
    return out;
  if (kiwaFastPixels()) {
    diffuseRows(image, static_cast<float>(threshold), out);
    return out;
  }
  auto err = std::make_unique<float[]>(static_cast<size_t>(n));
  const float limit = static_cast<float>(threshold);

  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const int64_t i = static_cast<int64_t>(y) * w + x;
      const float v = err[i] + static_cast<float>(image.data()[i]);
      float e;
      if (v > limit) {
        out.data()[i] = 255;
        if (y >= 1 && x >= 1 && y < h - 1 && x < w - 1) {
          float s = 0.0f;
          if (out.data()[i - 1] == 0)
            s += kNeighbourBonus;
          if (out.data()[i - w] == 0)
            s += kNeighbourBonus;
          e = (1.0f - s) * -255.0f + v;
        } else {
          e = v - 255.0f;
        }
      } else {
        out.data()[i] = 0;
        e = v;
      }
      for (const Tap& tap : kStencilTaps) {
        const int nx = x + tap.dx;
        const int ny = y + tap.dy;
        if (isWithinBounds(nx, ny, w, h))
          err[static_cast<int64_t>(ny) * w + nx] += e * tap.weight;
      }
    }
  }
  return out;
}

// A page handed over is diffused in place: each pixel is read just before its
// level is written, and only levels already written are read back.
RVImage edf_cus(RVImage&& image, int threshold) {
  if (!kiwaFastPixels() || image.color != RV_IMG_GRAY || image.channels != 1 ||
      image.byteCount() <= 0)
    return edf_cus(static_cast<const RVImage&>(image), threshold);
  diffuseRows(image, static_cast<float>(threshold), image);
  return std::move(image);
}

RVImage rvTattooDithering(RVImage& image) {
  return stencil(image, false);
}

RVImage rvTattooDitheringQ7(RVImage& image) {
  return stencil(image, true);
}
