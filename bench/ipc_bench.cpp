// Measures a transaction with the system server, compared with the bare calls that it needs in any case.
// The server is a process of its own that echoes; both share one core, so every message costs one switch to
// the other side.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/shm.h>

#include <chrono>
#include <cstdio>
#include <cstring>

#include "bench/echo.h"
#include "bench/medians.h"
#include "ipc/VeltoDrvMsg.h"
#include "ipc/msg_records.h"
#include "ipc/sys_msg_drv.h"
#include "sim/seam/run.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBatch = 20;
constexpr std::size_t kBody = 9;  // the size of a camera-control frame

pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
int velto_queue, sys_queue, sys_segment;

// Makes the calls of one transaction under the lock; `before` and `after` transfer the bodies.
template <typename Record, std::size_t kPayload, typename Before, typename After>
void bare_calls(int queue, Record record, Before before, After after) {
  const long id = record.src;
  pthread_mutex_lock(&lock);
  before();
  while (msgrcv(queue, &record, kPayload, id, IPC_NOWAIT) >= 0) continue;
  msgsnd(queue, &record, kPayload, 0);
  msgrcv(queue, &record, kPayload, id, 0);
  after();
  pthread_mutex_unlock(&lock);
  benchmark::DoNotOptimize(record);
}

template <typename Transaction>
void time_batches(benchmark::State& state, Transaction transaction) {
  for (auto _ : state) {
    const auto start = Clock::now();
    for (int i = 0; i < kBatch; ++i) transaction();
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

void bare_velto(benchmark::State& state) {
  const VeltoMsgBuf record{kServerMsgType, kVeltoPtzGetPosition, kVeltoProcess, 0, {}};
  time_batches(state, [&] {
    bare_calls<VeltoMsgBuf, kVeltoMsgPayload>(
        velto_queue, record, [] {}, [] {});
  });
}

void velto(benchmark::State& state) {
  time_batches(state, [] {
    i32 position;
    VeltoPtzGetPosition(position);
    benchmark::DoNotOptimize(position);
  });
}

template <typename Copy>
void with_slot(Copy copy) {
  u8* segment = static_cast<u8*>(shmat(sys_segment, nullptr, 0));
  copy(segment + sys_slot_offset(kSysMsgProcess));
  shmdt(segment);
}

void bare_sys(benchmark::State& state) {
  u8 body[kBody] = {0x81};
  const SysMsgBuf record{kServerMsgType, 39, kSysMsgProcess, kBody, sys_slot_offset(kSysMsgProcess)};
  time_batches(state, [&] {
    bare_calls<SysMsgBuf, kSysMsgPayload>(
        sys_queue, record, [&] { with_slot([&](u8* slot) { std::memcpy(slot, body, kBody); }); },
        [&] { with_slot([&](u8* slot) { std::memcpy(body, slot, kBody); }); });
  });
}

void sys_message(benchmark::State& state) {
  u8 body[kBody] = {0x81};
  time_batches(state, [&] {
    i32 length = kBody;
    if (TransmitMsg2Sys(body, kBody, &length, 39) != kBody) std::fprintf(stderr, "ipc_bench: no answer\n");
  });
}

BENCHMARK(bare_velto)->UseManualTime();
BENCHMARK(velto)->UseManualTime();
BENCHMARK(bare_sys)->UseManualTime();
BENCHMARK(sys_message)->UseManualTime();

}  // namespace

int main(int argc, char** argv) {
  const sim::Run run;
  stay_on_this_core();
  if (InitSysMsgDrv(kSysMsgProcess) < 0 || VeltoDrvInit(kVeltoProcess) < 0) return 1;
  velto_queue = msgget(sim::run_key(kVeltoMsgKey), 0);
  sys_queue = msgget(sim::run_key(kSysMsgKey), 0);
  sys_segment = shmget(sim::run_key(kSysMsgKey), 0, 0);
  start_echo<VeltoMsgBuf, kVeltoMsgPayload>(velto_queue);
  start_echo<SysMsgBuf, kSysMsgPayload>(sys_queue);

  Medians ns = run_benchmarks(argc, argv);
  std::printf("server transaction: %.3f of bare lock, drain, msgsnd, msgrcv (aim: at most 1.10)\n",
              ns["velto"] / ns["bare_velto"]);
  std::printf("system message: %.3f of the same with two attachings and copies (aim: at most 1.10)\n",
              ns["sys_message"] / ns["bare_sys"]);
  VeltoDrvExit();
  CleanupSysMsgDrv();
}
