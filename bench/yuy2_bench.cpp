// Measures how fast a picture becomes packed YUY2, relative to a loop that only loads and stores the same
// bytes (the limit), to libyuv and to swscale. All of them write the same bytes, which is checked first.
// Every plane begins at a page, like a mapped one. Takes the flags of Google Benchmark.
#include <benchmark/benchmark.h>
#include <libyuv.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "bench/medians.h"
#include "uvc/uvc_gadget_yuy2.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

class Plane {
 public:
  explicit Plane(std::size_t size) : pages_((size + sizeof(Page) - 1) / sizeof(Page)), size_(size) {}
  u8* data() { return pages_[0].bytes; }
  std::size_t size() const { return size_; }

 private:
  struct alignas(4096) Page {
    u8 bytes[4096];
  };
  std::vector<Page> pages_;
  std::size_t size_;
};

// One picture and its destination. Luma is 16..235 throughout: code that checks its range has to check
// all of it.
struct Frame {
  Frame(u32 width, u32 height, bool chroma_422)
      : picture{nullptr, nullptr, width, width, width, height, chroma_422},
        luma(picture.luma_bytes()),
        chroma(picture.chroma_bytes()),
        planar_chroma(chroma.size()),
        dst(2 * luma.size()) {
    for (std::size_t i = 0; i < luma.size(); ++i) luma.data()[i] = static_cast<u8>(16 + i * 7 % 220);
    for (std::size_t i = 0; i < chroma.size(); ++i) chroma.data()[i] = static_cast<u8>(i * 11 + i / width);
    picture.luma = luma.data();
    picture.chroma = chroma.data();
    libyuv::SplitUVPlane(picture.chroma, stride(), v(), stride() / 2, u(), stride() / 2, stride() / 2,
                         static_cast<int>(picture.chroma_rows()));
  }
  Frame(const Frame&) = delete;
  int stride() const { return static_cast<int>(picture.width); }
  u8* u() { return planar_chroma.data(); }
  u8* v() { return u() + planar_chroma.size() / 2; }

  SemiPlanarPicture picture;
  Plane luma, chroma, planar_chroma, dst;
  SwsContext* sws = nullptr;
};

void convert_rows(Frame& frame, Yuy2Kernels::Row convert) {
  u8* dst = frame.dst.data();
  for (u32 row = 0; row < frame.picture.height; ++row, dst += 2 * frame.stride()) {
    convert(frame.picture.luma_row(row), frame.picture.chroma_row(row), dst, frame.picture.width / 2);
  }
}

void ours(Frame& frame) { convert_rows(frame, yuy2_kernels().back().convert); }
void ours_with_scan(Frame& frame) { benchmark::DoNotOptimize(yuy2_convert(frame.picture, frame.dst.data())); }
void plain_loop(Frame& frame) { convert_rows(frame, yuy2_kernels().front().convert); }

template <typename Vector>
[[gnu::always_inline]] inline void load_and_store(const u8* luma, const u8* chroma, u8* dst,
                                                  std::size_t pairs) {
  for (; pairs >= sizeof(Vector) / 2; pairs -= sizeof(Vector) / 2) {
    Vector y, vu;
    std::memcpy(&y, luma, sizeof(y));
    std::memcpy(&vu, chroma, sizeof(vu));
    std::memcpy(dst, &y, sizeof(y));
    std::memcpy(dst + sizeof(y), &vu, sizeof(vu));
    luma += sizeof(Vector);
    chroma += sizeof(Vector);
    dst += 2 * sizeof(Vector);
  }
}
using Vector16 [[gnu::vector_size(16)]] = u8;
bool load_and_store_16(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  load_and_store<Vector16>(luma, chroma, dst, pairs);
  return false;
}
#if defined(__x86_64__)
using Vector32 [[gnu::vector_size(32)]] = u8;
[[gnu::target("avx2")]] bool load_and_store_32(const u8* luma, const u8* chroma, u8* dst, std::size_t pairs) {
  load_and_store<Vector32>(luma, chroma, dst, pairs);
  return false;
}
#endif

// Uses vectors as wide as those of the instruction set that the service uses.
void limit(Frame& frame) {
#if defined(__x86_64__)
  if (yuy2_kernels().back().name == std::string_view("avx2")) return convert_rows(frame, load_and_store_32);
#endif
  convert_rows(frame, load_and_store_16);
}

u8 scratch[2 * 1920];

// libyuv has no direct conversion. First chain: swap V and U of a chroma row, then interleave it with luma.
void libyuv_swap_merge(Frame& frame) {
  const int width = frame.stride();
  const int luma_rows = frame.picture.chroma_422 ? 1 : 2;
  u8* dst = frame.dst.data();
  for (u32 row = 0; row < frame.picture.height; row += luma_rows, dst += 2 * width * luma_rows) {
    libyuv::SwapUVPlane(frame.picture.chroma_row(row), width, scratch, width, width / 2, 1);
    libyuv::MergeUVPlane(frame.picture.luma_row(row), width, scratch, 0, dst, 2 * width, width, luma_rows);
  }
}

// Second chain: separate V and U, then pack planar rows.
void libyuv_split_pack(Frame& frame) {
  const int width = frame.stride(), half = width / 2;
  const bool chroma_422 = frame.picture.chroma_422;
  const auto pack = chroma_422 ? libyuv::I422ToYUY2 : libyuv::I420ToYUY2;
  u8 *u = scratch, *v = scratch + sizeof(scratch) / 2, *dst = frame.dst.data();
  for (u32 row = 0; row < frame.picture.height; row += 2, dst += 4 * width) {
    libyuv::SplitUVPlane(frame.picture.chroma_row(row), width, v, half, u, half, half, chroma_422 ? 2 : 1);
    pack(frame.picture.luma_row(row), width, u, half, v, half, dst, 2 * width, width, 2);
  }
}

// swscale reads V-first semi-planar 4:2:0, but only planar chroma for 4:2:2, which saves it the separation.
void swscale(Frame& frame) {
  const int width = frame.stride(), height = static_cast<int>(frame.picture.height);
  const bool planar = frame.picture.chroma_422;
  if (frame.sws == nullptr) {
    frame.sws = sws_getContext(width, height, planar ? AV_PIX_FMT_YUV422P : AV_PIX_FMT_NV21, width, height,
                               AV_PIX_FMT_YUYV422, SWS_POINT, nullptr, nullptr, nullptr);
  }
  const u8* planes[] = {frame.luma.data(), planar ? frame.u() : frame.chroma.data(),
                        planar ? frame.v() : nullptr};
  const int strides[] = {width, planar ? width / 2 : width, planar ? width / 2 : 0};
  u8* const out[] = {frame.dst.data()};
  const int out_strides[] = {2 * width};
  sws_scale(frame.sws, planes, strides, 0, height, out, out_strides);
}

struct Way {
  const char* name;
  void (*convert)(Frame& frame);
};
constexpr Way kWays[] = {{"load+store", limit},
                         {"ours", ours},
                         {"ours with luma scan", ours_with_scan},
                         {"libyuv swap and merge", libyuv_swap_merge},
                         {"libyuv split and pack", libyuv_split_pack},
                         {"swscale", swscale},
                         {"plain loop", plain_loop}};

struct Case {
  std::string name;
  std::deque<Frame> frames;
};

std::deque<Case> all_cases() {
  std::deque<Case> cases;
  for (const bool chroma_422 : {false, true}) {
    for (const auto& [width, height] : {std::pair{640u, 480u}, {1920u, 1080u}}) {
      for (const int buffers : {1, 3}) {
        Case& added = cases.emplace_back();
        added.name = std::string("yuy2 ") + (chroma_422 ? "4:2:2 " : "4:2:0 ") + std::to_string(width) + "x" +
                     std::to_string(height) + (buffers == 1 ? ", one buffer" : ", three in turn");
        for (int i = 0; i < buffers; ++i) added.frames.emplace_back(width, height, chroma_422);
      }
    }
  }
  return cases;
}

// All but the limit must write what the service writes.
bool all_agree(Frame& frame) {
  ours(frame);
  u8* const dst = frame.dst.data();
  const std::vector<u8> want(dst, dst + frame.dst.size());
  for (const auto& [name, convert] : kWays) {
    if (convert == limit) continue;
    std::fill_n(dst, want.size(), u8{0});
    convert(frame);
    if (std::equal(want.begin(), want.end(), dst)) continue;
    std::fprintf(stderr, "%s writes other bytes\n", name);
    return false;
  }
  return true;
}

std::string run_name(const Case& of, const char* way) { return of.name + "/" + way; }

void register_runs(Case& of) {
  for (const Way& way : kWays) {
    benchmark::RegisterBenchmark(run_name(of, way.name).c_str(), [&of, &way](benchmark::State& state) {
      std::size_t turn = 0;
      for (auto unused : state) way.convert(of.frames[turn++ % of.frames.size()]);
    })->Unit(benchmark::kMicrosecond);
  }
}

struct Ratio {
  const char *of, *to, *printed, *aim;
};
constexpr Ratio kRatios[] = {{"ours", "load+store", "load+store", "1.25"},
                             {"ours with luma scan", "load+store", "load+store, with luma scan", "1.35"},
                             {"ours", "libyuv", "libyuv's best chain", "0.97"},
                             {"ours", "swscale", "swscale", "0.97"}};

void summarise(const Case& of, Medians& all) {
  if (!all.contains(run_name(of, "ours"))) return;  // filtered out
  std::map<std::string, double> time;
  for (const Way& way : kWays) time[way.name] = all[run_name(of, way.name)];
  time["libyuv"] = std::min(time["libyuv swap and merge"], time["libyuv split and pack"]);
  for (const Ratio& ratio : kRatios) {
    std::printf("%s: %.2f of %s (aim: at most %s)\n", of.name.c_str(), time[ratio.of] / time[ratio.to],
                ratio.printed, ratio.aim);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::deque<Case> cases = all_cases();
  for (Case& one : cases) {
    if (!all_agree(one.frames.front())) return 1;
    register_runs(one);
  }
  Medians medians = run_benchmarks(argc, argv, {"--benchmark_min_time=0.02"});
  for (const Case& one : cases) summarise(one, medians);
}
