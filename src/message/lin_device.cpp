// LIN records, response priming, the master transfer loop and opening LIN channels.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "channel/channel.h"
#include "cli/output.h"
#include "message/lin.h"

namespace {

uint64_t now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

void sleep_ms(uint32_t ms) {
  timespec ts = {static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

// Reads the device directly, waiting on the channel's notification between polls.
struct DirectReader {
  VXHandle handle;
  VXNotifyHandle notify;
};

int read_direct(void* context, VXMessage* record, uint32_t remaining_ms, uint32_t* status) {
  auto* reader = static_cast<DirectReader*>(context);
  uint32_t st = VX_Read(reader->handle, record, remaining_ms, nullptr);
  if (st == VX_OK) return 1;
  // Lost records do not end the wait: the frame we need may still be queued.
  if (st == VX_ERR_QUEUE_EMPTY || st == VX_ERR_QUEUE_OVERRUN) {
    if (reader->notify) {
      uint32_t wait = remaining_ms < 1 ? 1 : remaining_ms > 10 ? 10 : remaining_ms;
      VX_WaitForNotifications(&reader->notify, 1, wait);
    }
    return 0;
  }
  *status = st;
  return -1;
}

bool is_completion(const VXMessage& m, int port, uint8_t id) {
  if ((m.header & VX_MSG_TYPE_MASK) != VX_MSG_TYPE_LIN) return false;
  if (!(m.header & VX_MSG_TX)) return false;
  if (port >= 0 && m.port != port) return false;
  return (m.id & 0x3F) == id;
}

void count_outcome(LinTransferResult* result, uint32_t outcome, uint32_t operation) {
  switch (outcome) {
    case VXCLI_LIN_OUTCOME_OK:
      result->ok++;
      if (operation == VXCLI_LIN_MASTER_READ) result->responses++;
      break;
    case VXCLI_LIN_OUTCOME_UNEXPECTED:
      result->unexpected++;
      result->failed++;
      break;
    default:
      result->failed++;
      break;
  }
}

bool auto_bitrate_refused(uint16_t bitrate, uint32_t mode) {
  if (bitrate != 0) return false;
  if (mode == VXCLI_LIN_MODE_SLAVE)
    fputs("connected ZQX LIN firmware does not yet support safe auto bitrate\n", stderr);
  else
    fputs("auto bitrate is only supported in LIN slave mode\n", stderr);
  return true;
}

VXHandle open_lin(const VXChannelInfo* channel, const char* label, uint16_t bitrate, uint32_t mode,
                  uint32_t pullup, uint32_t power, uint8_t version, uint8_t checksum_type) {
  VXBitrate rate;
  memset(&rate, 0, sizeof rate);
  rate.nominal_kbps = bitrate;  // the LIN bitrate travels in bit/s in this field
  // A combined CAN/LIN port opens as CAN unless told otherwise.
  uint32_t flags = (channel->capability & VX_CAP_CAN) ? VX_OPEN_LIN : 0;
  VXHandle handle = nullptr;
  uint32_t st = VX_OpenEx(&handle, channel, mode, pullup, &rate, 0, flags);
  if (st != VX_OK || !handle) {
    fprintf(stderr, "VX_OpenEx failed for LIN channel '%s': %s (0x%X)\n", label,
            vxcli_status_to_string(st), st);
    return nullptr;
  }
  // The master's supply needs a moment before the voltage can be switched reliably.
  if (mode == VXCLI_LIN_MODE_MASTER && power) sleep_ms(100);
  st = VX_SetLinVoltage(handle, power);
  if (st != VX_OK) {
    fprintf(stderr, "VX_SetLinVoltage failed: %s (0x%X)\n", vxcli_status_to_string(st), st);
    VX_Close(handle);
    return nullptr;
  }
  VXLinProtocol protocol;
  memset(&protocol, 0, sizeof protocol);
  protocol.version = version;
  protocol.checksum_type = checksum_type;
  st = VX_SetLinProtocol(handle, &protocol);
  if (st != VX_OK) {
    fprintf(stderr, "VX_SetLinProtocol failed: %s (0x%X)\n", vxcli_status_to_string(st), st);
    VX_Close(handle);
    return nullptr;
  }
  VX_ClearBuffer(handle);
  return handle;
}

}  // namespace

int vxcli_bus_from_channel(const VXChannelInfo* channel, const char* bus_text, uint32_t* bus) {
  if (!channel || !bus) return -1;
  bool lin = channel->capability & VX_CAP_LIN;
  bool can = channel->capability & VX_CAP_CAN;
  if (!bus_text || !*bus_text || strcasecmp(bus_text, "auto") == 0) {
    if (lin && !can) *bus = VXCLI_BUS_LIN;
    else if (can) *bus = VXCLI_BUS_CAN;
    else return -1;
    return 0;
  }
  if (strcasecmp(bus_text, "can") == 0 && can) *bus = VXCLI_BUS_CAN;
  else if (strcasecmp(bus_text, "lin") == 0 && lin) *bus = VXCLI_BUS_LIN;
  else return -1;
  return 0;
}

void vxcli_init_lin_message(VXLinMessage* out, uint8_t id, const uint8_t* data, uint32_t length,
                            bool master_supplies, uint8_t checksum_type) {
  if (!out) return;
  memset(out, 0, sizeof *out);
  if (length > 8) length = 8;
  out->id = id;
  out->control = static_cast<uint8_t>((master_supplies ? VX_LIN_CTRL_MASTER_DATA : 0) |
                                      (length & VX_LIN_CTRL_LEN_MASK) |
                                      (checksum_type == VXCLI_LIN_CHECKSUM_ENHANCED
                                           ? VX_LIN_CTRL_ENHANCED
                                           : 0));
  if (data && length) memcpy(out->data, data, length);
  out->checksum = vxcli_lin_checksum(out->data, length, id, checksum_type);
}

void vxcli_init_lin_response_task(VXLinResponseTask* out, uint8_t id, const uint8_t* data,
                                  uint32_t length, uint8_t checksum_type, uint16_t caller_value) {
  if (!out) return;
  memset(out, 0, sizeof *out);
  if (length > 8) length = 8;
  out->enabled = 1;
  out->kind = VX_TXTASK_KIND_LIN_RESPONSE;
  out->flags = static_cast<uint8_t>(
      VX_LINTASK_ACTIVE | (checksum_type == VXCLI_LIN_CHECKSUM_ENHANCED ? VX_LINTASK_ENHANCED : 0));
  out->length = static_cast<uint8_t>(length & 0x7F);
  out->user = caller_value;
  out->repeat = 1;
  out->id = id;
  if (data && length) memcpy(out->data, data, length);
  out->checksum = vxcli_lin_checksum(out->data, length, id, checksum_type);
}

uint32_t vxcli_prime_lin_response_tasks(VXHandle handle, const VXLinResponseTask* tasks,
                                        int count) {
  uint32_t last = VX_OK;
  for (int i = 0; tasks && i < count; i++) {
    const VXLinResponseTask& task = tasks[i];
    if (!task.enabled || task.hold || !(task.flags & VX_LINTASK_ACTIVE)) continue;
    VXLinMessage message;
    uint8_t type = (task.flags & VX_LINTASK_ENHANCED) ? VXCLI_LIN_CHECKSUM_ENHANCED
                                                      : VXCLI_LIN_CHECKSUM_CLASSIC;
    vxcli_init_lin_message(&message, task.id, task.data, task.length & 0x7F, true, type);
    if (task.flags & VX_LINTASK_OWN_CHECKSUM) {
      message.flags |= VX_LIN_FLAG_OWN_CHECKSUM;
      message.checksum = task.checksum;
    }
    uint32_t st = VX_WriteLinMessage(handle, &message, 0, 0, nullptr);
    if (st != VX_OK) last = st;
  }
  if (last != VX_OK) return last;
  sleep_ms(50);
  return VX_OK;
}

int vxcli_lin_transfer_with_receiver(VXHandle handle, int port, uint32_t operation, uint8_t id,
                                     const uint8_t* data, uint32_t length, uint8_t checksum_type,
                                     int count, uint32_t interval_ms, uint32_t timeout_ms,
                                     vxcli_lin_receiver receiver, void* receiver_context,
                                     LinTransferResult* result) {
  if (!result) return 1;
  result->sent = result->ok = result->responses = result->unexpected = result->failed = 0;
  result->recordCount = 0;
  if (!handle || count < 1) return 1;

  DirectReader direct = {handle, 0};
  if (!receiver) {
    VX_GetNotification(handle, &direct.notify);
    receiver = read_direct;
    receiver_context = &direct;
  }

  for (int i = 1; i <= count; i++) {
    LinTransferRecord scratch;
    LinTransferRecord* record = &scratch;
    if (result->records && result->recordCount < result->recordCapacity)
      record = &result->records[result->recordCount++];
    memset(record, 0, sizeof *record);

    VXLinMessage message;
    // For a master-read the length tells the device how many bytes to expect.
    vxcli_init_lin_message(&message, id, data, length, operation == VXCLI_LIN_MASTER_WRITE,
                           checksum_type);
    if (operation == VXCLI_LIN_SYNC_BREAK) message.status |= VX_LIN_TX_SYNC_BREAK;

    uint32_t timestamp = 0;
    if (operation == VXCLI_LIN_MASTER_WRITE) {
      uint32_t st = VX_WriteLinMessage(handle, &message, 0, timeout_ms, &timestamp);
      if (st != VX_OK) {
        record->status = st;
        record->outcome = VXCLI_LIN_OUTCOME_WRITE_ERROR;
        result->failed++;
      } else {
        result->sent++;
        result->ok++;
        record->outcome = VXCLI_LIN_OUTCOME_OK;
      }
    } else {
      uint32_t st = VX_WriteLinMessage(handle, &message, 0, 0, &timestamp);
      if (st != VX_OK) {
        record->status = st;
        record->outcome = VXCLI_LIN_OUTCOME_WRITE_ERROR;
        result->failed++;
      } else {
        result->sent++;
        uint64_t start = now_ms();
        for (;;) {
          uint64_t elapsed = now_ms() - start;
          if (elapsed >= timeout_ms) {
            record->outcome = VXCLI_LIN_OUTCOME_HOST_TIMEOUT;
            result->failed++;
            break;
          }
          uint32_t remaining = static_cast<uint32_t>(timeout_ms - elapsed);
          VXMessage frame;
          uint32_t read_status = 0;
          int got = receiver(receiver_context, &frame, remaining, &read_status);
          if (got < 0) {
            record->status = read_status;
            record->outcome = VXCLI_LIN_OUTCOME_READ_ERROR;
            result->failed++;
            break;
          }
          if (got == 0 || !is_completion(frame, port, id)) continue;
          record->frame = frame;
          uint32_t received = frame.control & VX_LIN_CTRL_LEN_MASK;
          record->outcome = vxcli_lin_classify(operation, length, received, frame.lin_status);
          record->classified = 1;
          count_outcome(result, record->outcome, operation);
          break;
        }
      }
    }
    if (interval_ms >= 1 && i < count) sleep_ms(interval_ms);
  }
  return result->failed ? 1 : 0;
}

int vxcli_lin_transfer(VXHandle handle, int port, uint32_t operation, uint8_t id,
                       const uint8_t* data, uint32_t length, uint8_t checksum_type, int count,
                       uint32_t interval_ms, uint32_t timeout_ms, LinTransferResult* result) {
  return vxcli_lin_transfer_with_receiver(handle, port, operation, id, data, length,
                                          checksum_type, count, interval_ms, timeout_ms, nullptr,
                                          nullptr, result);
}

VXHandle vxcli_open_lin_channel_info(const VXChannelInfo* channel, uint16_t bitrate,
                                     uint32_t mode, uint32_t pullup, uint32_t power,
                                     uint8_t version, uint8_t checksum_type) {
  if (!channel || auto_bitrate_refused(bitrate, mode)) return nullptr;
  return open_lin(channel, channel->name, bitrate, mode, pullup, power, version, checksum_type);
}

VXHandle vxcli_open_lin_channel_ex(const char* channel_spec, const char* bitrate_text,
                                   uint32_t mode, uint32_t pullup, uint32_t power,
                                   uint8_t version, uint8_t checksum_type,
                                   VXChannelInfo* info_out) {
  uint16_t bitrate = 0;
  if (vxcli_parse_lin_bitrate(bitrate_text, &bitrate) != 0) {
    fprintf(stderr, "Invalid LIN bitrate '%s' (expected 1000..20000 bps, e.g. 19200 or 19.2K)\n",
            bitrate_text ? bitrate_text : "");
    return nullptr;
  }
  if (auto_bitrate_refused(bitrate, mode)) return nullptr;
  vxcli_channel_spec spec;
  if (vxcli_parse_channel_spec(channel_spec, &spec) != 0) {
    fprintf(stderr, "Invalid channel specification: '%s'\n", channel_spec ? channel_spec : "");
    return nullptr;
  }
  VXChannelInfo infos[32];
  int count = 0;
  uint32_t st = vxcli_enumerate(infos, &count);
  if (st != VX_OK) {
    fprintf(stderr, "VX_Enumerate failed: %s (0x%X)\n", vxcli_status_to_string(st), st);
    return nullptr;
  }
  const VXChannelInfo* entry = vxcli_resolve_channel(infos, count, &spec);
  if (!entry) {
    fprintf(stderr, "No matching channel found for '%s' (enumerated %d channel(s))\n",
            channel_spec, count);
    return nullptr;
  }
  if (!(entry->capability & VX_CAP_LIN)) {
    fprintf(stderr, "Channel '%s' has no LIN capability\n", channel_spec);
    return nullptr;
  }
  VXHandle handle =
      open_lin(entry, channel_spec, bitrate, mode, pullup, power, version, checksum_type);
  if (handle && info_out) *info_out = *entry;
  return handle;
}
