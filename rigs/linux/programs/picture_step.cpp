// picture_step: judges by two received pictures what setting a control did to the scene, and reads which
// picture one is.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string_view>

#include "sim/host/control_steps.h"
#include "sim/media/frame_counter.h"
#include "sim/media/source.h"

using namespace sim;

namespace {

// Prints the steps with one setting, one per line: "brightness 12", a tab, "brightness=12".
int list() {
  for (const ControlStep& step : control_steps()) {
    const auto& [first, second] = step.settings;
    if (first.control && !second.control) std::printf("%s\t%s=%d\n", step.name, first.control, first.value);
  }
  return 0;
}

// Prints an error and returns null if the file holds no picture.
AvPtr<AVFrame> read_picture(const char* path) {
  const auto source = Source::open(path);
  if (!source) return nullptr;
  AvPtr<AVFrame> picture(av_frame_alloc());
  picture->width = 1280;
  picture->height = 720;
  picture->format = AV_PIX_FMT_YUVJ420P;
  if (av_frame_get_buffer(picture.get(), 0) < 0 || !source->next(*picture)) return nullptr;
  return picture;
}

int judge(const ControlStep& step, const char* before_path, const char* after_path) {
  const auto before = read_picture(before_path), after = read_picture(after_path);
  if (!before || !after) return 2;
  const StepOutcome outcome{.frames = step.frames,
                            .values = step.measure->of(measure(*before), measure(*after))};
  const std::string found = verdict(step, outcome);
  std::printf("%s: %s (%s)\n", step.name, measured_text(step, outcome).c_str(), found.c_str());
  return found == "right" ? 0 : 1;
}

// Prints the counter that is burnt into a picture, if it is the same at the top and at the bottom.
int print_counter(const char* path) {
  const auto picture = read_picture(path);
  if (!picture) return 2;
  const LumaView luma{picture->data[0], static_cast<u32>(picture->width), static_cast<u32>(picture->height),
                      static_cast<u32>(picture->linesize[0])};
  const auto top = read_counter(luma, Strip::kTop), bottom = read_counter(luma, Strip::kBottom);
  if (!top || top != bottom) return std::fprintf(stderr, "%s: no picture of the scene, or of two\n", path), 1;
  std::printf("%u\n", *top);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "list") return list();
  if (argc == 3 && std::string_view(argv[1]) == "counter") return print_counter(argv[2]);
  const auto step = argc == 4
                        ? std::ranges::find(control_steps(), std::string_view(argv[1]), &ControlStep::name)
                        : control_steps().end();
  if (step != control_steps().end()) return judge(*step, argv[2], argv[3]);
  std::fputs(
      "Usage: picture_step list\n"
      "       picture_step counter PICTURE\n"
      "       picture_step STEP PICTURE_BEFORE PICTURE_AFTER\n",
      stderr);
  return 2;
}
