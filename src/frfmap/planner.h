// Memory planning of a render, as pure functions of the available memory so
// that the plan is reproducible.
#pragma once

#include <cstdint>

namespace frfcam::frfmap {

// Pixels per block: the raw samples (2 bytes) and spectra (8 bytes) of one
// block, 10 bytes per pixel and frame, stay within a budget of the largest
// power of two not above half the available memory, less one (at most
// 4 GiB); the block is then halved and cut to whole rows. Never less than
// one row, never more than the image.
std::uint32_t PlanBlockPixels(std::uint32_t width, std::uint32_t height, std::int32_t frames,
                              std::uint64_t available);

// Bytes a render needs at the least: blocks of one row of `width` pixels
// (two of raw samples and two of spectra, so reading, transforming and
// writing overlap) and the frame records.
std::uint64_t MinimumRenderBytes(std::uint32_t width, std::int32_t frames);

// Pixels per sub-block of a block's transform: 14 bytes per frame plus 4 per
// pixel against a quarter of that power of two (at most 2 GiB), at most
// 65536 and at least 1.
std::uint32_t SubBlockPixels(std::int32_t frames, std::uint64_t available);

}  // namespace frfcam::frfmap
