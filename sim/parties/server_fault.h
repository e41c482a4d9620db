// The faults of the simulated system server.
#pragma once

namespace sim {

enum class ServerFault {
  kNone,
  kDead,  ///< takes nothing off its queues
  kFull,  ///< the same, and its queues are full
  kSlow,  ///< handles each message after a time
  kGone,  ///< its process has ended; queues and segments are removed, and made anew when the fault ends
  // What it answers to system messages, which it carries out all the same:
  kGarbled,       ///< a length of -5..5000 and random bytes
  kMute,          ///< nothing
  kLate,          ///< the right answer, after a time, one after the other
  kMisdirected,   ///< another process gets the answer
  kAnswersTwice,  ///< the answer to the message before comes first
};

}  // namespace sim
