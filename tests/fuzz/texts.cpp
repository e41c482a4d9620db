// Files, log calls and log records. The first character chooses: l level file, c configuration file, o log
// line, r raw line, h hex dump, v record for the log viewer.
#define main elog_cat_main
#include "elog/elog_cat.cpp"
#undef main

#include <memory>

#include "elog/elog.h"
#include "ipc/file_msg_drv.h"
#include "sim/seam/run.h"
#include "support/print.h"
#include "support/support.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::check;
using fuzz::Input;

std::string as_text(std::span<const u8> bytes) { return {bytes.begin(), bytes.end()}; }

struct Machine {
  Machine() {
    std::remove(run.path("/bin/reboot").c_str());  // from here on no command starts a shell
    log_module_init(ELOG_LVL_VERBOSE);
    queue = sys::msgget(kElogQueueKey, 0);
    check(queue >= 0, "the logger has a queue");
  }
  sim::Run run;
  int queue;
};

void check_lines(const Machine& machine, bool newline) {
  ElogRecord record;
  for (;;) {
    const ssize_t size = msgrcv(machine.queue, &record, sizeof(record.payload), 0, IPC_NOWAIT);
    if (size < 0) break;
    const ElogPayload& line = record.payload;
    check(record.type == kElogQueueType && line.level < ELOG_LVL_TOTAL_NUM, "a line has type and level");
    check(line.length <= kElogTextSize && size == static_cast<ssize_t>(kElogHeaderSize + line.length),
          "a line is as long as it says, and 512 bytes at most");
    if (newline) check(line.length > 0 && line.text[line.length - 1] == '\n', "a line ends in a newline");
  }
  check(errno == ENOMSG, "every record fits the collector's");
}

void level_file(const Machine& machine, Input input) {
  const std::string name = input.line();
  machine.run.write_file("/opt/params/print.conf", as_text(input.rest()));
  print_level = 77;
  print_level_load(name.c_str());
  check(print_level == 77 || (print_level >= 1 && print_level <= 4), "a level is one of the five");
  print_level = 3;
  log_module_set_level(ELOG_LVL_VERBOSE);
}

// What is to come of a file, written down another way: by its text as a whole.
std::string replaced(const std::string& file, const std::string& prefix, const std::string& replacement) {
  std::string result;
  for (std::size_t at = 0, length; at < file.size(); at += length) {
    length = std::min(file.find('\n', at), file.size() - 1) + 1 - at;
    length = std::min<std::size_t>(length, 511);
    const bool hit = length >= prefix.size() && file.compare(at, prefix.size(), prefix) == 0;
    result += hit ? replacement : file.substr(at, length);
  }
  return result;
}

void configuration(const Machine& machine, Input input) {
  const std::string prefix = input.line().c_str(), replacement = input.line().c_str();
  const std::string file = as_text(input.rest());
  machine.run.write_file("/etc/a.conf", file);
  check(ReplaceConfigLine("/etc/a.conf", prefix.c_str(), replacement.c_str()) == 0, "the copy is written");
  check(machine.run.read_file("/etc/a.conf.bak") == replaced(file, prefix, replacement),
        "lines that do not match stay as they are, byte for byte");
}

void log_line(const Machine& machine, Input input) {
  const u8 level = input.take<u8>() % ELOG_LVL_TOTAL_NUM;
  elog_set_fmt(level, input.take<u8>());
  const long number = input.take<i32>();
  const std::string tag = input.line(), keyword = input.line(), file = input.line(), function = input.line();
  const std::string text = as_text(input.rest());
  elog_set_filter_kw(keyword.c_str());
  elog_output(level, tag.c_str(), file.c_str(), function.c_str(), number, "%s", text.c_str());
  elog_output(level, tag.c_str(), "f", "g", 1, "%.*s%c", static_cast<int>(text.size()), text.data(), 0);
  elog_set_filter_kw("");
  check_lines(machine, true);
}

void raw_line(const Machine& machine, Input input) {
  elog_raw_output(ELOG_LVL_INFO, "%s", as_text(input.rest()).c_str());
  check_lines(machine, false);
}

void hex_dump(const Machine& machine, Input input) {
  const u8 level = input.take<u8>() % ELOG_LVL_TOTAL_NUM, width = input.take<u8>();
  const std::string name = input.line();
  const std::span<const u8> bytes = input.rest();
  elog_hexdump(level, name.c_str(), width, bytes.data(), static_cast<u16>(bytes.size()));
  check_lines(machine, true);
}

void viewer(const Machine&, Input input) {
  Options options;
  options.level = input.take<u8>() % kLevelCount;
  const std::string wanted = input.line();
  options.text = wanted.c_str();
  // As large as the viewer's own, with the byte for a zero.
  const auto memory = std::make_unique<u8[]>(sizeof(ElogPayload) + 1);
  const auto bytes = input.bytes(sizeof(ElogPayload));
  std::copy(bytes.begin(), bytes.end(), memory.get());
  Counts counts = {};
  take(options, *reinterpret_cast<ElogPayload*>(memory.get()), bytes.size(), counts);
  unsigned long lines = 0;
  for (const unsigned long count : counts.of_level) lines += count;
  check(lines + counts.malformed <= 1, "a record counts once");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const u8* bytes, std::size_t size) {
  static const Machine machine;
  static constexpr struct {
    char name;
    void (*run)(const Machine&, Input);
  } kParts[] = {{'l', level_file}, {'c', configuration}, {'o', log_line},
                {'r', raw_line},   {'h', hex_dump},      {'v', viewer}};
  Input input(bytes, size);
  const u8 name = input.take<u8>();
  for (const auto& part : kParts)
    if (name == part.name) part.run(machine, input);
  return 0;
}
