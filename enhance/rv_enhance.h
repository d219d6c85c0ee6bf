// The tattoo stencil chain: gray conversion, moment-preserving threshold,
// piecewise gamma, Gaussian blur and unsharp mask, and the stencil diffusion.
#ifndef OSTRA_ENHANCE_RV_ENHANCE_H
#define OSTRA_ENHANCE_RV_ENHANCE_H

#include "enhance/rv_math.h"

RVImage cvtGray(const RVImage& image);
// A level 0..255; -1 when the cumulative histogram never passes the moment
// target (a uniform image ends there), 128 when the moments have no real solution.
int thresh_global_moments(const RVImage& gray);
// Rewrites the image through two power curves meeting at level `knee`.
void enh_piecewise_gamma(RVImage& gray, int knee, float gamma1, float gamma2);

// Kernels are normalised to sum 1; `size` must be odd.
void generateGaussianKernel1D(int size, double sigma, double* kernel);
RVImage convolve1D(const RVImage& image, const double* kernel, int size, bool horizontal);
RVImage enh_gaussian_filter_fast(const RVImage& image, int size, double sigma);
void generateGaussianKernel(int size, double sigmaX, double sigmaY, double* kernel);
RVImage enh_gaussian_filter(const RVImage& image, int size, double sigmaX, double sigmaY);
RVImage add_Weighted(const RVImage& image, const RVImage& blurred, float amount);
RVImage enh_unsharp_mask(const RVImage& image, float amountPercent, int size);
// The same; a page handed over is sharpened in its own buffer where it can be.
RVImage enh_unsharp_mask(RVImage&& image, float amountPercent, int size);

// Error diffusion to 0/255 with the stencil kernel and thinned white runs.
RVImage edf_cus(const RVImage& image, int threshold);
RVImage edf_cus(RVImage&& image, int threshold);
// The stencil chain. A gray page may be taken over (left empty) by the fast path.
RVImage rvTattooDithering(RVImage& image);
RVImage rvTattooDitheringQ7(RVImage& image);

#endif  // OSTRA_ENHANCE_RV_ENHANCE_H
