// The cube's completion record: a 64-byte file beside the cube files (named
// by the naming rule, extension ".fft" so that DeleteCube removes it with the
// cube) that says for which dimensions the cube is being written, how many
// pixel rows of every bin plane are written so far, and whether it is
// complete. A render replaces it, marked incomplete, before it touches any
// cube file, updates the row count after every block and marks it complete
// only after the last block is written; readers trust nothing else.
//
// Layout, little-endian: "FRFCUBE1"; width, height, bins, rows written, a
// complete flag (1) and a spare word, 32 bits each; a 64-bit generation,
// new for every render; 16 spare bytes; a 64-bit checksum of the 56 bytes
// before it. A record that does not begin with the magic is not one of
// ours; one whose checksum does not match (torn by a concurrent update,
// damaged) counts as a cube with nothing complete.
#pragma once

#include <cstdint>
#include <string>

#include "platform/platform.h"

namespace frfcam::frfmap {

struct CubeRecord {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t bins = 0;
  std::uint32_t rows = 0;  // pixel rows of every plane written so far
  bool complete = false;
  std::uint64_t generation = 0;
};

enum class RecordState {
  kAbsent,   // no record: a cube written by another program, or none
  kInvalid,  // a record that cannot be trusted: nothing of the cube is complete
  kValid,
};

// Reads the record of the capture whose header is `header_path` into *record
// (when kValid). Never blocks: a record path that is not a regular file is
// kInvalid.
RecordState ReadCubeRecord(const std::string& header_path, CubeRecord* record);
// The same through a handle that the caller keeps between calls (open on the
// record, or closed): where the OS can tell cheaply that the name still
// holds the file open, the record is not opened again.
RecordState ReadCubeRecord(const std::string& header_path, platform::File* kept,
                           CubeRecord* record);

// Keeps the record of one render up to date.
class CubeRecordWriter {
 public:
  // Replaces the record in one step by one marked incomplete, with no rows,
  // for the given dimensions and a new generation. False when it cannot be
  // written; the cube must then not be touched.
  bool Begin(const std::string& header_path, std::uint32_t width, std::uint32_t height,
             std::uint32_t bins);
  // Records that `rows` rows of every plane are written; false on a failed write.
  bool SetRows(std::uint32_t rows);
  // Marks the cube complete (every row written); false on a failed write.
  bool Complete();
  void Close() { file_.Close(); }

 private:
  bool Write();

  platform::File file_;
  CubeRecord record_;
};

}  // namespace frfcam::frfmap
