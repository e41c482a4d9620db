#include "sim/app/report.h"

#include <unistd.h>

#include <cmath>
#include <cstdio>

namespace sim {

namespace {

constexpr double kLeastShareOfRate = 0.9;
constexpr char kEraseLine[] = "\r\033[K";

const char* line_start() { return isatty(STDOUT_FILENO) ? kEraseLine : ""; }

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
  if (!row.result.copied) return "the copy was not taken to the end";
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
                      {"empty", report.empty}}};
}

void print_table_head() {
  std::printf("%-22s %6s %8s %11s %15s  %-25s %8s  %s\n", "stream", "frames", "frames/s", "bytes/frame",
              "latency ms", "lost torn rep stale empty", "first ms", "verdict");
  std::fflush(stdout);
}

void print_row(const ReportRow& row) {
  const StreamReport& report = row.result.report;
  const unsigned long bytes = report.frames ? report.bytes / report.frames : 0;
  const double first = row.result.first_picture_ms;
  const std::string first_ms = first < 0 ? "-" : std::to_string(std::lround(first));
  std::printf("%s%-22s %6lu %8.1f %11lu %7.1f/%7.1f  %4lu %4lu %3lu %5lu %5lu %8s  %s\n", line_start(),
              row.name.c_str(), report.frames, row.result.rate(), bytes, report.latency_ms,
              report.latency_max_ms, report.lost, report.torn, report.repeated, report.stale, report.empty,
              first_ms.c_str(), verdict(row).c_str());
  std::fflush(stdout);
}

void print_progress(const ReportRow& row) {
  if (!isatty(STDOUT_FILENO)) return;
  std::printf("%s%s: %lu frames, %.1f frames/s", kEraseLine, row.name.c_str(), row.result.report.frames,
              row.result.rate());
  std::fflush(stdout);
}

}  // namespace sim
