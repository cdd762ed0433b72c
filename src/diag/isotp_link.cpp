// Link callbacks over the device library (direct) or a broker cursor (daemon).
#include "diag/isotp_link.h"

#include "message/frame.h"

#include <ctime>
#include <cstring>

namespace {

const vxcli_isotp_broker_ops* g_broker_ops = nullptr;

// Direct waits are cut into slices so that a cancel request is seen promptly.
constexpr uint32_t kWaitSliceMs = 100;

uint64_t monotonic_us() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
}

uint8_t dlc_to_length(uint8_t code) { return static_cast<uint8_t>(vxcli_dlc_to_bytes(code & 0x0F)); }

uint8_t length_to_dlc(uint8_t length) {
  if (length <= 8) return length;
  static const uint8_t kCodes[][2] = {{12, 9}, {16, 10}, {20, 11}, {24, 12}, {32, 13}, {48, 14}};
  for (const auto& c : kCodes)
    if (length <= c[0]) return c[1];
  return 15;
}

uint64_t link_now(void*) { return monotonic_us(); }

void link_sleep(void*, uint32_t us) {
  timespec ts{static_cast<time_t>(us / 1000000u), static_cast<long>((us % 1000000u) * 1000u)};
  while (nanosleep(&ts, &ts) != 0) {
  }
}

int link_cancelled(void* context) {
  return static_cast<vxcli_isotp_link*>(context)->cancel.load(std::memory_order_relaxed);
}

int link_send(void* context, const vxcli_isotp_frame* frame, int32_t timeout_ms) {
  auto* link = static_cast<vxcli_isotp_link*>(context);
  if (frame->length < 1 || frame->length > 64) return VXCLI_ISOTP_INVALID_ARGUMENT;
  VXMessage message;
  vxcli_isotp_frame_to_message(frame, &message);
  uint32_t timeout = timeout_ms < 0 ? VX_TIMEOUT_INFINITE : static_cast<uint32_t>(timeout_ms);
  VXStatus status = VX_Write(link->channel, &message, timeout, nullptr);
  if (status != VX_OK) {
    link->last_device_status = status;
    return VXCLI_ISOTP_IO_ERROR;
  }
  return VXCLI_ISOTP_OK;
}

int link_receive_direct(void* context, vxcli_isotp_frame* frame, int32_t timeout_ms) {
  auto* link = static_cast<vxcli_isotp_link*>(context);
  const uint64_t start = monotonic_us();
  for (;;) {
    VXMessage message;
    VXStatus status = VX_Read(link->channel, &message, 0, nullptr);
    if (status == VX_OK) {
      if (!vxcli_isotp_message_to_frame(&message, frame)) continue;
      frame->host_timestamp_us = monotonic_us();
      return VXCLI_ISOTP_OK;
    }
    if (status != VX_ERR_QUEUE_EMPTY) {
      link->last_device_status = status;
      return VXCLI_ISOTP_IO_ERROR;
    }
    if (link_cancelled(link)) return VXCLI_ISOTP_CANCELLED;
    if (timeout_ms == 0) return VXCLI_ISOTP_TIMEOUT;
    uint32_t slice = kWaitSliceMs;
    if (timeout_ms > 0) {
      int64_t left = timeout_ms - static_cast<int64_t>((monotonic_us() - start) / 1000);
      if (left <= 0) return VXCLI_ISOTP_TIMEOUT;
      if (left < slice) slice = static_cast<uint32_t>(left);
    }
    // Only the wait of the last slice may end the call with a timeout.
    VX_WaitForNotifications(&link->notification, 1, slice);
  }
}

int link_receive_broker(void* context, vxcli_isotp_frame* frame, int32_t timeout_ms) {
  auto* link = static_cast<vxcli_isotp_link*>(context);
  if (!g_broker_ops || !link->cursor) return VXCLI_ISOTP_CHANNEL_CLOSED;
  const uint64_t start = monotonic_us();
  for (;;) {
    int32_t left = timeout_ms;
    if (timeout_ms > 0) {
      int64_t l = timeout_ms - static_cast<int64_t>((monotonic_us() - start) / 1000);
      left = l > 0 ? static_cast<int32_t>(l) : 0;
    }
    VXMessage message;
    int result = g_broker_ops->read(link->cursor, &message, left);
    if (result != VXCLI_ISOTP_OK) {
      switch (result) {
        case VXCLI_ISOTP_TIMEOUT:
        case VXCLI_ISOTP_BROKER_GAP:
        case VXCLI_ISOTP_BROKER_EPOCH:
        case VXCLI_ISOTP_CHANNEL_CLOSED:
          return result;
        default:
          return VXCLI_ISOTP_IO_ERROR;
      }
    }
    if (vxcli_isotp_message_to_frame(&message, frame)) {
      frame->host_timestamp_us = monotonic_us();
      return VXCLI_ISOTP_OK;
    }
    if (timeout_ms == 0) return VXCLI_ISOTP_TIMEOUT;
  }
}

void config_from_templates(vxcli_isotp_config* config, const VXMessage* tx, const VXMessage* rx) {
  config->tx_extended = (tx->control & VX_CTRL_IDE) ? 1 : 0;
  config->tx_id = vxcli_isotp_plain_id(tx->id, config->tx_extended);
  config->fd = (tx->control & VX_CTRL_EDL) ? 1 : 0;
  config->brs = (tx->control & VX_CTRL_BRS) ? 1 : 0;
  config->tx_dl = dlc_to_length(tx->control & VX_CTRL_DLC_MASK);
  config->rx_extended = (rx->control & VX_CTRL_IDE) ? 1 : 0;
  config->rx_id = vxcli_isotp_plain_id(rx->id, config->rx_extended);
}

uint32_t finish_call(vxcli_isotp_link* link, int status) {
  link->last_status = status;
  return vxcli_isotp_status_to_vxapi(status, link->last_device_status);
}

}  // namespace

void vxcli_isotp_set_broker_ops(const vxcli_isotp_broker_ops* ops) { g_broker_ops = ops; }

uint32_t vxcli_isotp_wire_id(uint32_t id, bool extended) {
  if (!extended) return id & VX_ID_STD_MASK;
  return ((id >> 18) & VX_ID_STD_MASK) | ((id & VX_ID_EXT_MASK) << VX_ID_EXT_SHIFT);
}

uint32_t vxcli_isotp_plain_id(uint32_t word, bool extended) {
  if (!extended) return word & VX_ID_STD_MASK;
  return ((word & VX_ID_STD_MASK) << 18) | ((word >> VX_ID_EXT_SHIFT) & VX_ID_EXT_MASK);
}

void vxcli_isotp_frame_to_message(const vxcli_isotp_frame* frame, VXMessage* message) {
  memset(message, 0, sizeof *message);
  message->header = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN & 0xFFFF);
  message->length = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN >> 16);
  message->id = vxcli_isotp_wire_id(frame->id, frame->extended);
  uint8_t control = length_to_dlc(frame->length);
  if (frame->extended) control |= VX_CTRL_IDE;
  if (frame->fd) control |= VX_CTRL_EDL;
  if (frame->fd && frame->brs) control |= VX_CTRL_BRS;
  message->control = control;
  memcpy(message->data, frame->data, frame->length);
}

bool vxcli_isotp_message_to_frame(const VXMessage* message, vxcli_isotp_frame* frame) {
  if ((message->header & VX_MSG_TYPE_MASK) != VX_MSG_TYPE_CAN || (message->header & VX_MSG_TX))
    return false;
  uint8_t code = message->control & VX_CTRL_DLC_MASK;
  if (code == 0 || (message->control & VX_CTRL_RTR)) return false;
  memset(frame, 0, sizeof *frame);
  const bool fd = (message->control & VX_CTRL_EDL) != 0;
  // Classic frames never carry more than 8 bytes whatever the code says.
  frame->length = fd ? dlc_to_length(code) : (code > 8 ? 8 : code);
  frame->extended = (message->control & VX_CTRL_IDE) ? 1 : 0;
  frame->id = vxcli_isotp_plain_id(message->id, frame->extended);
  frame->fd = fd ? 1 : 0;
  frame->brs = (message->control & VX_CTRL_BRS) ? 1 : 0;
  memcpy(frame->data, message->data, frame->length);
  frame->device_timestamp = message->timestamp;
  return true;
}

int vxcli_isotp_link_open(vxcli_isotp_link* link, VXHandle channel_handle, int broker_slot,
                          const vxcli_isotp_link_params* parameters, const char* cursor_name) {
  if (!link || !parameters) return -1;
  link->open = 0;
  link->cursor = nullptr;
  link->cancel.store(0);
  link->last_device_status = 0;
  link->last_status = 0;
  memset(&link->stats, 0, sizeof link->stats);
  link->channel = channel_handle;
  link->broker_slot = broker_slot < 0 ? -1 : broker_slot;
  link->notification = -1;
  if (parameters->role != VXCLI_ISOTP_ROLE_TESTER && parameters->role != VXCLI_ISOTP_ROLE_ECU)
    return -1;

  vxcli_isotp_config_init(&link->config);
  if (parameters->role == VXCLI_ISOTP_ROLE_TESTER)
    config_from_templates(&link->config, &parameters->request_template, &parameters->response_template);
  else
    config_from_templates(&link->config, &parameters->response_template, &parameters->request_template);
  link->config.block_size = parameters->block_size ? parameters->block_size : 8;
  link->config.st_min = parameters->st_min;
  link->config.padding = parameters->padding ? 1 : 0;
  link->config.pad_byte = parameters->pad_byte;

  memset(&link->callbacks, 0, sizeof link->callbacks);
  link->callbacks.context = link;
  link->callbacks.send_frame = link_send;
  link->callbacks.now_us = link_now;
  link->callbacks.sleep_us = link_sleep;
  link->callbacks.cancelled = link_cancelled;

  if (broker_slot >= 0) {
    if (!g_broker_ops || !g_broker_ops->slot_attached(broker_slot)) return -1;
    const char* name = cursor_name && *cursor_name ? cursor_name : "isotp";
    link->cursor = g_broker_ops->open_cursor(broker_slot, name, link->config.rx_id, 0x1FFFFFFF);
    if (!link->cursor) return -1;
    link->callbacks.receive_frame = link_receive_broker;
  } else {
    if (!channel_handle || VX_GetNotification(channel_handle, &link->notification) != VX_OK) return -1;
    link->callbacks.receive_frame = link_receive_direct;
  }
  link->open = 1;
  return 0;
}

uint32_t vxcli_isotp_link_send(vxcli_isotp_link* link, const uint8_t* data, uint32_t length,
                               int32_t timeout_ms) {
  if (!link || !link->open) return VX_ERR_INVALID_CLIENT;
  link->last_device_status = 0;
  int status = vxcli_isotp_engine_send(&link->config, &link->callbacks, data, length, timeout_ms,
                                       &link->stats);
  return finish_call(link, status);
}

uint32_t vxcli_isotp_link_receive(vxcli_isotp_link* link, uint8_t* buffer,
                                  uint32_t* length_in_out, int32_t timeout_ms) {
  if (!link || !link->open) return VX_ERR_INVALID_CLIENT;
  link->last_device_status = 0;
  int status = vxcli_isotp_engine_receive(&link->config, &link->callbacks, buffer, length_in_out,
                                          timeout_ms, &link->stats);
  return finish_call(link, status);
}

const char* vxcli_isotp_link_error(const vxcli_isotp_link* link) {
  if (!link) return "invalid ISO-TP link";
  return vxcli_isotp_engine_status_string(link->last_status);
}

void vxcli_isotp_link_cancel(vxcli_isotp_link* link) {
  if (link) link->cancel.store(1);
}

void vxcli_isotp_link_close(vxcli_isotp_link* link) {
  if (!link) return;
  if (link->cursor && g_broker_ops) g_broker_ops->close_cursor(link->cursor);
  link->cursor = nullptr;
  link->open = 0;
}
