// elog_cat: prints what the logger left in the collector's queue, for a camera whose collector is not
// running. It uses plain C library calls only, to stay small beside the service.
#include <getopt.h>
#include <signal.h>
#include <sys/msg.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "elog/elog_record.h"
#include "platform/sys.h"

namespace {

constexpr char kHelp[] =
    "Usage: elog_cat [OPTIONS]\n"
    "Prints the camera's log lines as they come, until SIGINT or SIGTERM. It takes them off the log\n"
    "queue: run it where no log collector does.\n"
    "\n"
    "  -l, --level LEVEL  lines up to this level only: assert, error, warn, info, debug or verbose\n"
    "  -t, --text TEXT    lines that contain TEXT only\n"
    "  -e, --until-empty  end once the queue is empty\n"
    "  -c, --count        print no lines, but at the end how many there were of each level\n"
    "  -h, --help         print this text\n";

constexpr option kOptions[] = {
    {"level", required_argument, nullptr, 'l'}, {"text", required_argument, nullptr, 't'},
    {"until-empty", no_argument, nullptr, 'e'}, {"count", no_argument, nullptr, 'c'},
    {"help", no_argument, nullptr, 'h'},        {nullptr, 0, nullptr, 0},
};

struct Level {
  const char* name;
  char letter;
  const char* colour;
};
constexpr Level kLevels[] = {
    {"assert", 'A', "\033[1;35m"}, {"error", 'E', "\033[31m"}, {"warn", 'W', "\033[33m"},
    {"info", 'I', "\033[36m"},     {"debug", 'D', "\033[32m"}, {"verbose", 'V', "\033[2m"},
};
constexpr int kLevelCount = sizeof(kLevels) / sizeof(kLevels[0]);
constexpr char kPlain[] = "\033[0m";

struct Options {
  int level = kLevelCount - 1;
  const char* text = "";
  bool until_empty = false;
  bool count_only = false;
  bool colours = false;
};

struct Counts {
  unsigned long of_level[kLevelCount];
  unsigned long malformed;
};

constexpr useconds_t kPause = 50'000;

volatile sig_atomic_t ended;

int level_of(const char* name) {
  for (int level = 0; level < kLevelCount; ++level) {
    if (std::strcmp(name, kLevels[level].name) == 0) return level;
  }
  std::fprintf(stderr, "elog_cat: unknown level %s; -h lists them\n", name);
  std::exit(2);
}

Options options_of(int argc, char** argv) {
  Options options;
  for (int letter; (letter = getopt_long(argc, argv, "l:t:ech", kOptions, nullptr)) >= 0;) {
    switch (letter) {
      case 'l':
        options.level = level_of(optarg);
        break;
      case 't':
        options.text = optarg;
        break;
      case 'e':
        options.until_empty = true;
        break;
      case 'c':
        options.count_only = true;
        break;
      case 'h':
        std::exit(std::fputs(kHelp, stdout) < 0);
      default:
        std::exit(2);
    }
  }
  if (optind != argc) {
    std::fprintf(stderr, "elog_cat: unexpected argument %s; -h prints the usage\n", argv[optind]);
    std::exit(2);
  }
  options.colours = isatty(STDOUT_FILENO) == 1;
  return options;
}

// Everybody may write into the queue, and a terminal obeys control characters. Whether bytes beyond ASCII are
// letters or controls depends on the terminal.
bool is_printable(char c) { return c == '\t' || (c >= ' ' && c <= '~'); }

void print(const Options& options, const Level& level, const char* text, std::size_t length) {
  std::printf("%s%c ", options.colours ? level.colour : "", level.letter);
  for (const char* end = text + length; text < end; ++text) {
    if (is_printable(*text))
      std::putchar(*text);
    else
      std::printf("\\x%02x", static_cast<u8>(*text));
  }
  std::puts(options.colours ? kPlain : "");
}

// `size` is the number of bytes received after the message type.
void take(const Options& options, const ElogPayload& record, std::size_t size, Counts& counts) {
  if (size < kElogHeaderSize || record.length != size - kElogHeaderSize || record.level >= kLevelCount) {
    ++counts.malformed;
    return;
  }
  std::size_t length = record.length;
  while (length > 0 && record.text[length - 1] == '\n') --length;
  char text[kElogTextSize + 1];
  std::memcpy(text, record.text, length);
  text[length] = '\0';
  if (record.level > options.level || !std::strstr(text, options.text)) return;
  ++counts.of_level[record.level];
  if (!options.count_only) print(options, kLevels[record.level], text, length);
}

// Returns 0, or 1 if the queue can no longer be read.
int read_queue(int queue, const Options& options, Counts& counts) {
  ElogRecord message;
  while (!ended) {
    const ssize_t size =
        msgrcv(queue, &message, sizeof(ElogPayload), kElogQueueType, IPC_NOWAIT | MSG_NOERROR);
    if (size >= 0) {
      take(options, message.payload, static_cast<std::size_t>(size), counts);
    } else if (errno != ENOMSG && errno != EINTR) {
      std::fprintf(stderr, "elog_cat: the log queue %s\n",
                   errno == EACCES ? "may not be read by this user" : "was removed");
      return 1;
    } else if (options.until_empty) {
      return 0;
    } else {
      std::fflush(stdout);
      usleep(kPause);
    }
  }
  return 0;
}

void print_counts(const Counts& counts) {
  for (int level = 0; level < kLevelCount; ++level) {
    std::printf("%-8s %lu\n", kLevels[level].name, counts.of_level[level]);
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = options_of(argc, argv);
  const int queue = sys::msgget(kElogQueueKey, 0);
  if (queue < 0) {
    std::fprintf(stderr, "elog_cat: no log queue (key 0x%08X): start the service first\n", kElogQueueKey);
    return 1;
  }
  struct sigaction end = {};
  end.sa_handler = [](int) { ended = 1; };
  sigaction(SIGINT, &end, nullptr);
  sigaction(SIGTERM, &end, nullptr);
  Counts counts = {};
  const int result = read_queue(queue, options, counts);
  if (options.count_only) print_counts(counts);
  if (counts.malformed) std::fprintf(stderr, "elog_cat: %lu malformed records\n", counts.malformed);
  return result;
}
