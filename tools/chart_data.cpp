#include "chart_data.h"

#include <cmath>
#include <cstdio>
#include <fstream>

#include "command_error.h"
#include "platform/platform.h"
#include "talproto.pb.h"

namespace frfcam::cli {

namespace {

std::string JsonArray(const std::vector<double>& values) {
  std::string out = "[";
  for (std::size_t i = 0; i < values.size(); ++i) {
    if (i > 0) out += ',';
    out += JsonNumber(values[i]);
  }
  return out + "]";
}

}  // namespace

std::string JsonNumber(double v) {
  if (!std::isfinite(v)) return "null";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.9g", v);
  return buf;
}

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (const char ch : text) {
    const auto c = static_cast<unsigned char>(ch);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += ch;
    } else if (c < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += ch;
    }
  }
  return out + "\"";
}

ChartInput ReadRecordChart(const std::string& path, std::vector<RecordMode>* modes) {
  std::uint64_t bytes = 0;
  if (!platform::FileSize(path, &bytes)) throw CommandError(path + ": no such file");
  std::ifstream in(platform::PathFromUtf8(path), std::ios::binary);
  talproto::stabChartData record;
  if (!in || !record.ParseFromIstream(&in)) {
    throw CommandError(path + ": not a stability record (written by 'frfcam stability')");
  }
  ChartInput chart;
  for (const auto& info : record.orderinfo()) {
    ChartInput::Order order;
    order.order = static_cast<int>(info.order_num());
    order.s.assign(info.s().begin(), info.s().end());
    order.f.assign(info.f().begin(), info.f().end());
    order.d.assign(info.d().begin(), info.d().end());
    order.o.assign(info.o().begin(), info.o().end());
    chart.orders.push_back(std::move(order));
  }
  chart.selectedHz.assign(record.selected_poles().begin(), record.selected_poles().end());
  chart.title = path;
  if (modes != nullptr) {
    modes->clear();
    for (int i = 0; i < record.selected_poles_size(); ++i) {
      modes->push_back({record.selected_poles(i), i < record.selected_dampingfactor_size()
                                                      ? record.selected_dampingfactor(i)
                                                      : std::nan("")});
    }
  }
  return chart;
}

std::string ChartJson(const ChartInput& chart) {
  std::string out = "{\"title\":" + JsonString(chart.title) + ",\"orders\":[";
  for (std::size_t i = 0; i < chart.orders.size(); ++i) {
    const ChartInput::Order& o = chart.orders[i];
    if (i > 0) out += ',';
    out += "{\"order\":" + std::to_string(o.order) + ",\"s\":" + JsonArray(o.s) +
           ",\"f\":" + JsonArray(o.f) + ",\"d\":" + JsonArray(o.d) + ",\"o\":" + JsonArray(o.o) +
           "}";
  }
  out += "],\"line_hz\":" + JsonArray(chart.lineHz) +
         ",\"sum_magnitude\":" + JsonArray(chart.sumMagnitude) +
         ",\"selected_hz\":" + JsonArray(chart.selectedHz) + "}";
  return out;
}

}  // namespace frfcam::cli
