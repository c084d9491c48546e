// The data behind a stabilisation chart, as the viewer and scripts take it:
// read from a stability record, or written as JSON.
#pragma once

#include <string>
#include <vector>

#include "chart_svg.h"

namespace frfcam::cli {

// A mode a record selected.
struct RecordMode {
  double frequencyHz = 0.0;
  double damping = 0.0;  // ratio
};

// Reads the stability record `path` (written by `frfcam stability`): its
// chart, titled with the path and without the magnitude behind it (a record
// does not hold the measured FRFs), and its selected modes. Throws
// CommandError when the file is missing or is not such a record.
ChartInput ReadRecordChart(const std::string& path, std::vector<RecordMode>* modes);

// The chart as one JSON object: "title", "orders" (an array of objects with
// "order", "s", "f", "d" and "o", each class's pole frequencies in Hz),
// "line_hz", "sum_magnitude" and "selected_hz". Non-finite numbers are null.
std::string ChartJson(const ChartInput& chart);

// `text` as a JSON string literal, quotes included.
std::string JsonString(const std::string& text);

// `v` as a JSON number with nine significant digits; null when not finite.
std::string JsonNumber(double v);

}  // namespace frfcam::cli
