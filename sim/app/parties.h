// The outside parties of the camera: all processes that stand around the service, with the head that they
// move, but neither the gadget node nor a host.
#pragma once

#include <optional>

#include "sim/media/media.h"
#include "sim/parties/camera_head.h"
#include "sim/parties/collector.h"
#include "sim/parties/server.h"

namespace sim {

struct Fault;

/// Which parties are played here. A process of the user's own takes the place of another.
struct Cast {
  bool encoder = true, server = true, collector = true;
};
struct PartyName {
  const char* name;
  bool Cast::*member;
};
constexpr PartyName kParties[] = {
    {"encoder", &Cast::encoder}, {"server", &Cast::server}, {"collector", &Cast::collector}};
/// Returns the name of the party whose fault it is, if that party is not played here; otherwise null.
const char* missing_party(const Cast& cast, const Fault& fault);

struct Parties {
  Parties(MediaOptions media_options, const CollectorOptions& collector_options, const Cast& cast = {});

  CameraHead head;
  Media media;  ///< without an encoder, it still makes the VPSS pictures
  std::optional<Server> server;
  std::optional<Collector> collector;
};

/// See Server::received(); empty without a server.
std::vector<std::string> received(const Parties& parties, std::size_t from = 0);

/// Sets the fault, or ends it. Returns false if it is none of these parties', but the node's or the cable's.
/// The party must be played here.
bool set_fault(Parties& parties, const Fault& fault, bool on);

}  // namespace sim
