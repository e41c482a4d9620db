// A conversation as a capture file, as if it had been recorded on the host's bus: usbmon's records (link type
// LINKTYPE_USB_LINUX_MMAPPED), beginning with the enumeration and the camera's descriptors, so that a
// dissector knows what each request is for. Times count from the beginning of the conversation.
//
// Wireshark expects every answer about the probe and commit controls to be a block of 26 bytes, and reports
// those to GET_LEN and GET_INFO as malformed.
#pragma once

#include <string>
#include <vector>

#include "sim/host/conversation.h"

namespace sim {

/// Prints an error and returns false if the file cannot be written.
bool write_pcap(const std::string& path, const std::vector<Exchange>& exchanges);

}  // namespace sim
