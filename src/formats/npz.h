// NumPy's .npz archives (numpy.savez and savez_compressed): a zip file of
// .npy members, stored or deflated, with zip64 sizes for large members. And
// the FRF input the stability commands take from them: a frequency vector
// plus a complex FRF matrix.
#pragma once

#include <complex>
#include <cstdint>
#include <string>
#include <vector>

#include "formats/npy.h"

namespace frfcam::formats {

struct NpzMember {
  std::string name;  // without the ".npy" the archive adds
  NpyArray array;
};

// Reads every member of an archive, in archive order. False with a one-line
// reason in *error (naming the file and member) when the file is missing,
// is not a zip archive, uses another compression than stored or deflate,
// fails its checksum, holds a member that is not a .npy array frfcam reads,
// or when the members' data exceed `maxBytes` in all.
bool ReadNpz(const std::string& path, std::vector<NpzMember>* out, std::string* error,
             std::uint64_t maxBytes = std::uint64_t{1} << 34);

// An FRF table from arrays: frequencies in Hz and a lines x channels complex
// matrix stored column by column (channel c, line i at i + c x lines).
struct FrfArrays {
  std::vector<double> frequencyHz;
  std::vector<std::complex<double>> frf;
  std::size_t channels = 0;
  std::string note;  // which members were taken, and how (for the user)
};

// Picks the frequency vector and the FRF matrix from an archive's members:
// by name (frequencies_hz, frequencies, frequency, freq, f; frf_matrix, frf,
// H, h) or, for an archive of exactly two arrays, the real 1-D one and the
// complex one. The FRF may be 1-D (one channel), (lines, channels) or
// (channels, lines); a real FRF is taken as complex with zero imaginary
// parts. False with a reason naming the members when none fits.
bool FrfFromArrays(const std::vector<NpzMember>& members, const std::string& name, FrfArrays* out,
                   std::string* error);

}  // namespace frfcam::formats
