// A conversation as a capture file, as if it had been taken on the host's bus: usbmon's records (link type
// LINKTYPE_USB_LINUX_MMAPPED), the enumeration with the camera's descriptors first, so that a dissector knows
// what each request is for. Times count from the conversation's begin.
//
// Wireshark takes every answer about the probe and commit controls for a block of 26 bytes and calls those to
// GET_LEN and GET_INFO malformed.
#pragma once

#include <string>
#include <vector>

#include "sim/host/conversation.h"

namespace sim {

/// False, after a message, when the file cannot be written.
bool write_pcap(const std::string& path, const std::vector<Exchange>& exchanges);

}  // namespace sim
