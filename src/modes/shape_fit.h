// Per-pixel residues with fixed poles. Every pixel's FRF over the band is
// fitted by the same modal model (stability::ModalDesignMatrix), so the
// least-squares operator P = (A^H A)^-1 A^H is the same for all pixels:
// factorised once, folded with the reference (H = X / R, so P H = (P / R) X),
// and applied to the cube's planes as they stream past: C += X (pixels x
// bins) * W (bins x terms). The image is cut into segments of pixels; each
// worker reads its segment of a few planes at a time into a buffer of its
// own (together at most `chunkBytes`, at least one segment of one plane
// each) and fits it while it is in the cache, so memory stays bounded
// whatever the size of the capture.
#pragma once

#include <atomic>
#include <complex>
#include <cstdint>
#include <functional>
#include <vector>

#include "frfmap/cube_files.h"
#include "stability/estimator.h"

namespace frfcam::modes {

struct ShapeFit {
  // pixels x terms (modes, then upper and lower residual), column-major:
  // coefficient t of pixel p at [p + t * pixels].
  std::vector<std::complex<float>> coefficients;
  // Per pixel: the fraction of its FRF energy over the band that the model
  // explains (0..1; 0 for a pixel with no energy).
  std::vector<float> quality;
  int terms = 0;
};

enum class ShapeFitStatus { kOk, kShortCube, kCancelled, kOutOfMemory };

// bins: the band's bins in increasing order; omega: their
// angular frequencies; referenceAtBin: R at those bins (non-zero);
// chunkBytes: the read buffer (at least one plane);
// modeHz / modeDamping: the fixed poles; done (when set): told the share of
// the reading finished, from the worker that finished a piece, possibly
// several at once. `cube` must be in read mode.
ShapeFitStatus FitShapes(frfmap::CubeFileSet& cube, std::uint32_t pixels,
                         const std::vector<std::uint32_t>& bins, const stability::RealVector& omega,
                         const std::vector<std::complex<double>>& referenceAtBin,
                         const stability::RealVector& modeHz,
                         const stability::RealVector& modeDamping, std::size_t chunkBytes,
                         const std::atomic<bool>* cancel, ShapeFit* out,
                         const std::function<void(double)>& done = {});

}  // namespace frfcam::modes
