// Prints the rows that the tables of docs/wire-formats.md must have according to the headers, each without
// its last cell, for tools/check-wire-formats.
#include <cstdio>
#include <string>

#include "elog/elog_record.h"
#include "ipc/msg_records.h"
#include "ipc/sys_info.h"
#include "ipc/velto_commands.h"
#include "uvc/uvc_class_control.h"
#include "uvc/uvc_class_streaming.h"
#include "vencbuf/enc_frame.h"
#include "visca/visca_frame.h"

namespace {

void print_value(const char* name, u64 value) {
  std::printf("value %llu %s\n", static_cast<unsigned long long>(value), name);
}
void print_value(const char* name, const char* text) { std::printf("value \"%s\" %s\n", text, name); }
#define VALUE(name) print_value(#name, name)
#define HEX_VALUE(name, digits) std::printf("value 0x%0*X %s\n", digits, name, #name)

void print_field(const char* record, const char* name, std::size_t offset, std::size_t size) {
  std::printf("%s %zu %zu %s\n", record, offset, size, name);
}
#define FIELD_AT(base, record, name) \
  print_field(#record, #name, (base) + offsetof(record, name), sizeof(static_cast<record*>(nullptr)->name))
#define FIELD(record, name) FIELD_AT(0, record, name)
// Of a record on a queue, with a message type of 4 bytes as on the camera.
#define TYPE_FIELD(record, name) print_field(#record, #name, offsetof(record, name), 4)
#define QUEUE_FIELD(record, name) FIELD_AT(4 - sizeof(long), record, name)
#define SETTINGS_FIELD(name) FIELD_AT(kVeltoFirstWord, EncoderSettingsMessage, name)

void print_names() {
  VALUE(kFileMsgKey);
  VALUE(kVeltoMsgKey);
  VALUE(kSysMsgKey);
  HEX_VALUE(VENC_RING_KEY, 4);
  HEX_VALUE(kElogQueueKey, 8);
  VALUE(kFrameReadySemaphore);
  VALUE(kSlotReleasedSemaphore);
  VALUE(kServerMsgType);
  VALUE(kFileMsgProcess);
  VALUE(kVeltoProcess);
  VALUE(kSysMsgProcess);
}

void print_parameter_segment() {
  VALUE(kSysStateOffset);
  VALUE(kCameraCacheOffset);
  VALUE(kRequestFlagsOffset);
  VALUE(kSysInfoLength);
  HEX_VALUE(SYSINFO_MAGIC, 8);
  HEX_VALUE(CAMERA_CACHE_VALID, 8);
  FIELD(SysInfo, magic);
  FIELD(SysInfo, mac);
  FIELD(SysInfo, web_port);
  FIELD(SysInfo, listen_port);
  FIELD(SysInfo, usb_port);
  FIELD(CameraCache, words);
  FIELD(CameraCache, valid);
}

void print_queues() {
  std::printf("record FileMsgBuf %zu\n", kFileMsgPayload);
  std::printf("record VeltoMsgBuf %zu\n", kVeltoMsgPayload);
  std::printf("record SysMsgBuf %zu\n", kSysMsgPayload);
  TYPE_FIELD(FileMsgBuf, dest);
  QUEUE_FIELD(FileMsgBuf, cmd);
  QUEUE_FIELD(FileMsgBuf, src);
  QUEUE_FIELD(FileMsgBuf, shmid);
  QUEUE_FIELD(FileMsgBuf, length);
  QUEUE_FIELD(FileMsgBuf, info);
  QUEUE_FIELD(FileMsgBuf, unused);
  TYPE_FIELD(SysMsgBuf, dest);
  QUEUE_FIELD(SysMsgBuf, cmd);
  QUEUE_FIELD(SysMsgBuf, src);
  QUEUE_FIELD(SysMsgBuf, length);
  QUEUE_FIELD(SysMsgBuf, offset);
  TYPE_FIELD(VeltoMsgBuf, dest);
  QUEUE_FIELD(VeltoMsgBuf, cmd);
  QUEUE_FIELD(VeltoMsgBuf, src);
  QUEUE_FIELD(VeltoMsgBuf, ret);
  QUEUE_FIELD(VeltoMsgBuf, payload);
  TYPE_FIELD(ElogRecord, type);
  QUEUE_FIELD(ElogRecord, payload.level);
  QUEUE_FIELD(ElogRecord, payload.length);
  QUEUE_FIELD(ElogRecord, payload.text);
}

std::string words(const VeltoWords& offsets) {
  if (offsets.count == 0) return "-";
  const int first = *offsets.begin(), last = *(offsets.end() - 1);
  if (offsets.count > 2 && last == first + 4 * (offsets.count - 1))
    return std::to_string(first) + ".." + std::to_string(last);
  std::string list;
  for (const u8 offset : offsets) list += (list.empty() ? "" : ", ") + std::to_string(offset);
  return list;
}

void print_commands() {
  for (const i32 number : {i32{kVeltoGetMemory}, i32{kVeltoEncoderSettings}, 12}) {
    const VeltoCommandRow& row = *find_velto_command(number);
    std::printf("command %d %s %s %s\n", number, row.request ? "request" : "one-way", words(row.in).c_str(),
                words(row.out).c_str());
  }
  SETTINGS_FIELD(header);
  SETTINGS_FIELD(running);
  SETTINGS_FIELD(settings.width);
  SETTINGS_FIELD(settings.height);
  SETTINGS_FIELD(settings.frame_rate);
  SETTINGS_FIELD(settings.reserved);
  SETTINGS_FIELD(settings.codec);
  SETTINGS_FIELD(settings.rc_mode);
  SETTINGS_FIELD(settings.rc_param);
}

// The word of the camera-value cache that the control with this command has.
std::string cache_word(u8 command) {
  for (const Unit* unit : uvc_units()) {
    for (const Control& control : unit->controls)
      if (control.visca == command && control.cache != kNotCached) return std::to_string(control.cache);
  }
  return "-";
}

void print_visca() {
  VALUE(kSysMsgVisca);
  VALUE(kSysSegmentSize);
  VALUE(kSysSlotSize);
  for (const u8 command : {kViscaBrightness, kViscaContrast, kViscaSaturation, kViscaSharpness, kViscaGamma,
                           kViscaWhiteBalanceMode, kViscaPowerLine, kViscaExposureMode, kViscaZoomPosition}) {
    const ViscaFrame frame = visca_inquiry(command);
    std::printf("inquiry");
    for (int i = 0; i < frame.length; ++i) std::printf(" %02X", frame.bytes[i]);
    std::printf(" %s\n", cache_word(command).c_str());
  }
}

void print_ring() {
  VALUE(sizeof(EncFrameSlot));
  VALUE(kRingSize);
  VALUE(kRingSlots);
  VALUE(kSlotEmpty);
  VALUE(kSlotReady);
  VALUE(kSlotReading);
  VALUE(kSlotReleased);
  VALUE(kJpegFrameType);
  VALUE(kLastVideoFrameType);
  FIELD(EncFrameSlot, state);
  FIELD(EncFrameSlot, seq);
  FIELD(EncFrameSlot, frame_type);
  FIELD(EncFrameSlot, width);
  FIELD(EncFrameSlot, height);
  FIELD(EncFrameSlot, size);
  FIELD(EncFrameSlot, data);
}

void print_blocks() {
  FIELD(VsProbeCommit, bmHint);
  FIELD(VsProbeCommit, bFormatIndex);
  FIELD(VsProbeCommit, bFrameIndex);
  FIELD(VsProbeCommit, dwFrameInterval);
  FIELD(VsProbeCommit, wKeyFrameRate);
  FIELD(VsProbeCommit, wPFrameRate);
  FIELD(VsProbeCommit, wCompQuality);
  FIELD(VsProbeCommit, wCompWindowSize);
  FIELD(VsProbeCommit, wDelay);
  FIELD(VsProbeCommit, dwMaxVideoFrameSize);
  FIELD(VsProbeCommit, dwMaxPayloadTransferSize);
  FIELD(VsStillProbeCommit, bFormatIndex);
  FIELD(VsStillProbeCommit, bFrameIndex);
  FIELD(VsStillProbeCommit, bCompressionIndex);
  FIELD(VsStillProbeCommit, dwMaxVideoFrameSize);
  FIELD(VsStillProbeCommit, dwMaxPayloadTransferSize);
}

}  // namespace

int main() {
  print_names();
  print_parameter_segment();
  print_queues();
  print_commands();
  print_visca();
  print_ring();
  print_blocks();
}
