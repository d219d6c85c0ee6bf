// The printer application's own PNG and JPEG readers: an image is decoded only
// within what the printer can print, and a damaged one aborts its job at once.
#ifndef OSTRA_APP_APP_IMAGE_H
#define OSTRA_APP_APP_IMAGE_H

#include <pappl/pappl.h>

#include <cstddef>

// The largest image a job may send: no side longer than the longest roll
// (100 in) at 300 dpi, no more pixels than the widest media (8.5 in) by that.
constexpr int kAppImageMaxSide = 100 * 300;
constexpr size_t kAppImageMaxPixels = static_cast<size_t>(85 * 300 / 10) * kAppImageMaxSide;

// PAPPL document filters for image/png and image/jpeg; false, with a job
// reason and one log line, when the image cannot be printed.
bool appFilterPng(pappl_job_t* job, pappl_device_t* device, void* data);
bool appFilterJpeg(pappl_job_t* job, pappl_device_t* device, void* data);

#endif  // OSTRA_APP_APP_IMAGE_H
