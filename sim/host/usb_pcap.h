// A conversation as a capture file, as if it had been recorded on the host's bus: usbmon's records (link type
// LINKTYPE_USB_LINUX_MMAPPED), beginning with the enumeration and the camera's descriptors, so that a
// dissector knows what each request is for. Times count from the beginning of the conversation. And the way
// back, from what usbmon recorded on a Linux host.
//
// Wireshark expects every answer about the probe and commit controls to be a block of 26 bytes, and reports
// those to GET_LEN and GET_INFO as malformed.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "sim/host/conversation.h"

namespace sim {

/// Prints an error and returns false if the file cannot be written.
bool write_pcap(const std::string& path, const std::vector<Exchange>& exchanges);

/// Reads what usbmon recorded: a capture file, or its text ("cat /sys/kernel/debug/usb/usbmon/0u"). Returns
/// the class requests to a camera's two interfaces in the order in which they were answered; at_ms counts
/// from the first. Left out are other traffic, requests without an answer, and in the text, requests with
/// more than the 32 bytes that it shows. Returns nothing, with a line in `error`, if the file cannot be read.
std::optional<std::vector<Exchange>> read_recording(const std::string& path, std::string& error);

}  // namespace sim
