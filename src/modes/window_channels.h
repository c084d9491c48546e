// The displacement channels of the pole fit: windows on a grid of the image,
// each giving U = -K b (optical_flow.h) at every line of the band.
//
// One pass over the band's planes gathers, per window and line, the sums b
// and the window's brightness energy. From them:
//  - the noise of each window: per pixel and line, the median over the band
//    of what the gradients leave unexplained (resonances are a few lines of
//    many, so they do not count), divided by the degrees of freedom left;
//  - the motion rule: of the windows' brightness energy above that noise,
//    the share the gradients explain (1 for anything that moves, little for
//    light that changes in place);
//  - the channels: each component a window sees, divided by its noise's
//    standard deviation, so that all have unit noise per line.
#pragma once

#include <Eigen/Dense>
#include <complex>
#include <cstdint>
#include <vector>

#include "modes/optical_flow.h"

namespace frfcam::modes {

class WindowChannels {
 public:
  struct Column {
    std::size_t window = 0;
    int component = 0;  // 0 x, 1 y
  };

  // Windows centred every `stride` pixels (from stride / 2) of a width x
  // height image, `radius` as the flow operator's, over `lines` lines.
  // Throws std::bad_alloc.
  WindowChannels(unsigned width, unsigned height, int stride, int radius, Eigen::Index lines);

  std::size_t count() const { return rows_.size() * cols_.size(); }
  unsigned centreX(std::size_t w) const { return cols_[w % cols_.size()]; }
  unsigned centreY(std::size_t w) const { return rows_[w / cols_.size()]; }
  // Position of the window on its grid.
  std::size_t gridRow(std::size_t w) const { return w / cols_.size(); }
  std::size_t gridColumn(std::size_t w) const { return w % cols_.size(); }

  // Sets needed[y] for every image row a window reads.
  void MarkRows(std::vector<char>* needed) const;

  // The sums of every window at `line` from `plane` (a whole plane, raster
  // order, of which the rows MarkRows names are filled). Calls for
  // different lines may run side by side.
  void Accumulate(const FlowOperator& flow, const std::complex<float>* plane, Eigen::Index line);

  // The noise of every window with `flow` (see above). Returns the median
  // over the windows that see anything (0 when none does): the noise of a
  // pixel per line, for FlowOperator::Build's texture floor.
  double EstimateNoise(const FlowOperator& flow);

  // The motion rule's share (0..1; 0 when nothing stands above the noise),
  // and the windows that see anything.
  double MotionShare(const FlowOperator& flow, std::vector<std::size_t>* seen) const;

  // lines x columns: every component `flow` sees, with a noise above 0, of
  // the windows `seen`, divided by its noise's standard deviation.
  Eigen::MatrixXcf Whitened(const FlowOperator& flow, const std::vector<std::size_t>& seen,
                            std::vector<Column>* columns) const;

  // U of window w at `line` (NaN for what it does not see).
  void Displacement(const FlowOperator& flow, std::size_t w, Eigen::Index line,
                    std::complex<float>* ux, std::complex<float>* uy) const;

 private:
  double Explained(const FlowOperator& flow, std::size_t w, Eigen::Index line) const;
  int Degrees(const FlowOperator& flow, std::size_t w) const;

  unsigned width_, height_;
  int radius_;
  Eigen::Index lines_;
  std::vector<unsigned> rows_, cols_;
  std::vector<double> pixels_;  // per window, after clipping at the borders
  Eigen::MatrixXcf bx_, by_;    // windows x lines
  Eigen::MatrixXf energy_;
  std::vector<double> noise_;
};

}  // namespace frfcam::modes
