#include "sim/app/report.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "sim/app/table.h"

namespace sim {

namespace {

constexpr double kLeastShareOfRate = 0.9;
constexpr double kBusyLoad = 1;  // processes that run or wait to run, for each processor
constexpr char kEraseLine[] = "\r\033[K";

constexpr Column kColumns[] = {
    {"stream", 15, 22},
    {"frames", 6, 6, CellKind::kNumber},
    {"frames/s", 8, 8, CellKind::kNumber},
    {"bytes/frame", 11, 11, CellKind::kNumber},
    {"latency ms", 13, 15, CellKind::kNumber},
    {"first ms", 8, 8, CellKind::kNumber},
    {"verdict", 13, 80, CellKind::kList},
};

const char* line_start() { return isatty(STDOUT_FILENO) ? kEraseLine : ""; }

std::string tenths(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.1f", value);
  return text;
}

// Says so if the PC is too busy for the simulator's encoder.
void print_load() {
  double load = 0;
  const unsigned processors = std::max(1u, std::thread::hardware_concurrency());
  if (getloadavg(&load, 1) != 1 || load <= kBusyLoad * processors) return;
  std::printf("This PC is busy (load %.1f, %u processors), which is probably why frames are slow.\n", load,
              processors);
}

}  // namespace

std::string defects(const StreamReport& report) {
  const struct {
    const char* name;
    unsigned long count;
  } counts[] = {{"lost", report.lost},
                {"torn", report.torn},
                {"repeated", report.repeated},
                {"stale", report.stale},
                {"empty", report.empty}};
  std::string text;
  for (const auto& [name, count] : counts) {
    if (count) text += (text.empty() ? "" : ", ") + std::string(name) + ' ' + std::to_string(count);
  }
  return text;
}

namespace {

// Returns what is wrong with the stream; empty if nothing is.
std::string complaint(const ReportRow& row) {
  if (!row.error.empty()) return row.error;
  if (!row.result.copied) return "copy cut short";
  if (row.result.report.frames == 0) return "no picture";
  if (const std::string wrong = defects(row.result.report); !wrong.empty()) return wrong;
  if (row.result.rate() >= kLeastShareOfRate * row.asked_rate) return "";
  char text[64];
  std::snprintf(text, sizeof(text), "slow: %.1f of %u frames/s", row.result.rate(), row.asked_rate);
  return text;
}

}  // namespace

bool is_good(const ReportRow& row) { return complaint(row).empty(); }

std::string verdict(const ReportRow& row) {
  if (!is_good(row)) return complaint(row);
  return row.result.report.counted ? "whole" : "whole, no counter";
}

Finding finding_of(const ReportRow& row) {
  const StreamReport& report = row.result.report;
  return {.group = "streams",
          .name = row.name,
          .good = is_good(row),
          .verdict = verdict(row),
          .seconds = row.result.seconds,
          .figures = {{"frames", report.frames},
                      {"frames/s", row.result.rate()},
                      {"bytes", report.bytes},
                      {"latency ms", report.latency_ms},
                      {"greatest latency ms", report.latency_max_ms},
                      {"first picture ms", row.result.first_picture_ms},
                      {"lost", report.lost},
                      {"torn", report.torn},
                      {"repeated", report.repeated},
                      {"stale", report.stale},
                      {"empty", report.empty},
                      {"unseen", report.unseen}}};
}

void print_table_head() {
  std::fputs(line_start(), stdout);
  print_table_titles(kColumns);
}

void print_row(const ReportRow& row) {
  const StreamReport& report = row.result.report;
  const double first = row.result.first_picture_ms;
  std::fputs(line_start(), stdout);
  print_table_row(kColumns, {row.name, std::to_string(report.frames), tenths(row.result.rate()),
                             std::to_string(report.frames ? report.bytes / report.frames : 0),
                             tenths(report.latency_ms) + '/' + tenths(report.latency_max_ms),
                             first < 0 ? "-" : std::to_string(std::lround(first)), verdict(row)});
  if (verdict(row).starts_with("slow")) print_load();
}

void print_progress(const ReportRow& row) {
  if (!isatty(STDOUT_FILENO)) return;
  std::printf("%s%s: %lu frames, %.1f frames/s", kEraseLine, row.name.c_str(), row.result.report.frames,
              row.result.rate());
  std::fflush(stdout);
}

}  // namespace sim
