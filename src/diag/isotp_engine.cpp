// Segmentation and reassembly of ISO-TP payloads; no I/O of its own.
#include "diag/isotp.h"

#include <cstring>

namespace {

constexpr uint8_t kFdLengths[] = {12, 16, 20, 24, 32, 48, 64};

bool valid_tx_dl(uint8_t dl) {
  if (dl >= 1 && dl <= 8) return true;
  for (uint8_t l : kFdLengths)
    if (dl == l) return true;
  return false;
}

// Rounds a frame up to a length the bus can carry and pads the gap.
void finish_tx_frame(const vxcli_isotp_config* config, vxcli_isotp_frame* frame, uint32_t used) {
  uint32_t length = used;
  if (used > 8 || config->padding) {
    if (length > 8) length = vxcli_isotp_fd_length(length);
    if (config->padding && length < config->tx_dl) length = config->tx_dl;
  }
  if (length > 64) length = 64;
  for (uint32_t i = used; i < length; i++) frame->data[i] = config->pad_byte;
  frame->length = static_cast<uint8_t>(length);
}

void start_tx_frame(const vxcli_isotp_config* config, vxcli_isotp_frame* frame) {
  memset(frame, 0, sizeof *frame);
  frame->id = config->tx_id;
  frame->extended = config->tx_extended ? 1 : 0;
  frame->fd = config->fd ? 1 : 0;
  frame->brs = (config->fd && config->brs) ? 1 : 0;
}

bool is_cancelled(const vxcli_isotp_callbacks* link) {
  return link->cancelled && link->cancelled(link->context) != 0;
}

int send_frame(const vxcli_isotp_callbacks* link, const vxcli_isotp_frame* frame,
               int32_t timeout_ms, vxcli_isotp_stats* stats) {
  int status = link->send_frame(link->context, frame, timeout_ms);
  if (status == VXCLI_ISOTP_OK) stats->frames_sent++;
  return status;
}

// One frame from rx_id; frames for anyone else are dropped. The timeout
// covers this whole call, however many foreign frames pass by.
int receive_matching(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link,
                     vxcli_isotp_frame* frame, int32_t timeout_ms, vxcli_isotp_stats* stats) {
  uint64_t start = link->now_us ? link->now_us(link->context) : 0;
  for (;;) {
    if (is_cancelled(link)) return VXCLI_ISOTP_CANCELLED;
    int32_t left = timeout_ms;
    if (timeout_ms > 0 && link->now_us) {
      uint64_t elapsed_ms = (link->now_us(link->context) - start) / 1000;
      if (elapsed_ms >= static_cast<uint64_t>(timeout_ms)) return VXCLI_ISOTP_TIMEOUT;
      left = static_cast<int32_t>(timeout_ms - static_cast<int64_t>(elapsed_ms));
    }
    // A zero timeout is a poll: the link answers "timeout" once its queue is empty.
    int status = link->receive_frame(link->context, frame, left);
    if (status != VXCLI_ISOTP_OK) return status;
    if (frame->id != config->rx_id) continue;
    if ((frame->extended ? 1 : 0) != (config->rx_extended ? 1 : 0)) continue;
    if (frame->length < 1 || frame->length > 64) continue;
    stats->frames_received++;
    if (stats->frames_received == 1) {
      stats->first_device_timestamp = frame->device_timestamp;
      stats->first_host_timestamp_us = frame->host_timestamp_us;
    }
    stats->last_device_timestamp = frame->device_timestamp;
    stats->last_host_timestamp_us = frame->host_timestamp_us;
    return VXCLI_ISOTP_OK;
  }
}

int wait_flow_control(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link,
                      int32_t timeout_ms, vxcli_isotp_stats* stats, uint8_t* block_size,
                      uint8_t* st_min) {
  uint32_t waits = 0;
  for (;;) {
    vxcli_isotp_frame frame;
    int status = receive_matching(config, link, &frame, timeout_ms, stats);
    if (status != VXCLI_ISOTP_OK) return status;
    if (frame.length < 3 || (frame.data[0] >> 4) != 3) return VXCLI_ISOTP_PROTOCOL_ERROR;
    stats->flow_control_frames++;
    switch (frame.data[0] & 0x0F) {
      case 0:
        *block_size = frame.data[1];
        *st_min = frame.data[2];
        stats->last_block_size = frame.data[1];
        stats->last_st_min = frame.data[2];
        return VXCLI_ISOTP_OK;
      case 1:
        stats->wait_frames++;
        if (++waits > config->wait_limit) return VXCLI_ISOTP_WAIT_LIMIT;
        break;
      case 2:
        return VXCLI_ISOTP_REMOTE_OVERFLOW;
      default:
        return VXCLI_ISOTP_PROTOCOL_ERROR;
    }
  }
}

int send_flow_control(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link,
                      uint8_t flow_status, int32_t timeout_ms, vxcli_isotp_stats* stats) {
  vxcli_isotp_frame frame;
  start_tx_frame(config, &frame);
  frame.data[0] = static_cast<uint8_t>(0x30 | flow_status);
  frame.data[1] = config->block_size;
  frame.data[2] = config->st_min;
  finish_tx_frame(config, &frame, 3);
  int status = send_frame(link, &frame, timeout_ms, stats);
  if (status == VXCLI_ISOTP_OK) {
    stats->flow_control_frames++;
    stats->last_block_size = config->block_size;
    stats->last_st_min = config->st_min;
  }
  return status;
}

// Keeps consecutive frames at least STmin apart, measured from the previous send.
void pace(const vxcli_isotp_callbacks* link, uint32_t gap_us, uint64_t last_send_us) {
  if (gap_us == 0 || !link->sleep_us) return;
  if (!link->now_us) {
    link->sleep_us(link->context, gap_us);
    return;
  }
  uint64_t due = last_send_us + gap_us;
  uint64_t now = link->now_us(link->context);
  if (now < due) link->sleep_us(link->context, static_cast<uint32_t>(due - now));
}

}  // namespace

void vxcli_isotp_config_init(vxcli_isotp_config* config) {
  memset(config, 0, sizeof *config);
  config->tx_dl = 8;
  config->pad_byte = 0xCC;
  config->wait_limit = 3;
  config->max_length = VXCLI_ISOTP_MAX_PAYLOAD;
}

int vxcli_isotp_config_check(const vxcli_isotp_config* config,
                             const vxcli_isotp_callbacks* link) {
  if (!config || !link || !link->send_frame || !link->receive_frame)
    return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (config->tx_id > 0x1FFFFFFF || config->rx_id > 0x1FFFFFFF) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (!config->tx_extended && config->tx_id > 0x7FF) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (!config->rx_extended && config->rx_id > 0x7FF) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (!valid_tx_dl(config->tx_dl)) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (config->tx_dl > 8 && !config->fd) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (config->max_length < 1 || config->max_length > VXCLI_ISOTP_MAX_PAYLOAD)
    return VXCLI_ISOTP_INVALID_ARGUMENT;
  return VXCLI_ISOTP_OK;
}

uint32_t vxcli_isotp_stmin_us(uint8_t st_min) {
  if (st_min <= 0x7F) return st_min * 1000u;
  if (st_min >= 0xF1 && st_min <= 0xF9) return (st_min - 0xF0) * 100u;
  return 127000;  // reserved values: fall back to the longest legal gap
}

uint8_t vxcli_isotp_fd_length(uint32_t n) {
  if (n <= 8) return static_cast<uint8_t>(n);
  for (uint8_t l : kFdLengths)
    if (n <= l) return l;
  return 64;
}

int vxcli_isotp_engine_send(const vxcli_isotp_config* config, const vxcli_isotp_callbacks* link,
                            const uint8_t* data, uint32_t length, int32_t timeout_ms,
                            vxcli_isotp_stats* stats) {
  vxcli_isotp_stats local;
  if (!stats) stats = &local;
  memset(stats, 0, sizeof *stats);
  int status = vxcli_isotp_config_check(config, link);
  if (status != VXCLI_ISOTP_OK) return status;
  if (!data || length < 1 || length > config->max_length) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (link->prepare) link->prepare(link->context);

  const uint32_t dl = config->tx_dl;
  const bool fd_padded = config->fd && config->padding && dl > 8;
  vxcli_isotp_frame frame;
  start_tx_frame(config, &frame);
  if (length <= 7 && !fd_padded && length + 1 <= dl) {
    frame.data[0] = static_cast<uint8_t>(length);
    memcpy(frame.data + 1, data, length);
    finish_tx_frame(config, &frame, length + 1);
    status = send_frame(link, &frame, timeout_ms, stats);
    if (status == VXCLI_ISOTP_OK) stats->bytes = length;
    return status;
  }
  if ((length <= 7 && fd_padded) || (length >= 8 && length + 2 <= dl && length < 256)) {
    frame.data[0] = 0x00;
    frame.data[1] = static_cast<uint8_t>(length);
    memcpy(frame.data + 2, data, length);
    finish_tx_frame(config, &frame, length + 2);
    status = send_frame(link, &frame, timeout_ms, stats);
    if (status == VXCLI_ISOTP_OK) stats->bytes = length;
    return status;
  }

  if (length > VXCLI_ISOTP_MAX_PAYLOAD || dl < 3) return VXCLI_ISOTP_INVALID_ARGUMENT;
  frame.data[0] = static_cast<uint8_t>(0x10 | (length >> 8));
  frame.data[1] = static_cast<uint8_t>(length & 0xFF);
  uint32_t offset = dl - 2;
  memcpy(frame.data + 2, data, offset);
  finish_tx_frame(config, &frame, dl);
  status = send_frame(link, &frame, timeout_ms, stats);
  if (status != VXCLI_ISOTP_OK) return status;

  uint8_t block_size = 0, st_min = 0;
  status = wait_flow_control(config, link, timeout_ms, stats, &block_size, &st_min);
  if (status != VXCLI_ISOTP_OK) return status;

  uint8_t sequence = 1;
  uint32_t in_block = 0;
  uint32_t consecutive = 0;
  uint64_t last_send_us = 0;
  while (offset < length) {
    if (is_cancelled(link)) return VXCLI_ISOTP_CANCELLED;
    if (block_size != 0 && in_block == block_size) {
      status = wait_flow_control(config, link, timeout_ms, stats, &block_size, &st_min);
      if (status != VXCLI_ISOTP_OK) return status;
      in_block = 0;
    }
    if (consecutive > 0) pace(link, vxcli_isotp_stmin_us(st_min), last_send_us);
    uint32_t chunk = length - offset;
    if (chunk > dl - 1) chunk = dl - 1;
    start_tx_frame(config, &frame);
    frame.data[0] = static_cast<uint8_t>(0x20 | sequence);
    memcpy(frame.data + 1, data + offset, chunk);
    finish_tx_frame(config, &frame, chunk + 1);
    status = send_frame(link, &frame, timeout_ms, stats);
    if (status != VXCLI_ISOTP_OK) return status;
    if (link->now_us) last_send_us = link->now_us(link->context);
    offset += chunk;
    sequence = (sequence + 1) & 0x0F;
    in_block++;
    consecutive++;
  }
  stats->bytes = length;
  return VXCLI_ISOTP_OK;
}

int vxcli_isotp_engine_receive(const vxcli_isotp_config* config,
                               const vxcli_isotp_callbacks* link, uint8_t* buffer,
                               uint32_t* length_in_out, int32_t timeout_ms,
                               vxcli_isotp_stats* stats) {
  vxcli_isotp_stats local;
  if (!stats) stats = &local;
  memset(stats, 0, sizeof *stats);
  int status = vxcli_isotp_config_check(config, link);
  if (status != VXCLI_ISOTP_OK) return status;
  if (!buffer || !length_in_out || *length_in_out == 0) return VXCLI_ISOTP_INVALID_ARGUMENT;
  if (link->prepare) link->prepare(link->context);
  const uint32_t capacity = *length_in_out;

  vxcli_isotp_frame frame;
  status = receive_matching(config, link, &frame, timeout_ms, stats);
  if (status != VXCLI_ISOTP_OK) return status;

  const uint8_t type = frame.data[0] >> 4;
  if (type == 0) {
    uint32_t header = 1;
    uint32_t total = frame.data[0] & 0x0F;
    if (total == 0) {
      if (frame.length < 2 || frame.data[1] == 0) return VXCLI_ISOTP_PROTOCOL_ERROR;
      header = 2;
      total = frame.data[1];
    }
    if (total > config->max_length || header + total > frame.length)
      return VXCLI_ISOTP_PROTOCOL_ERROR;
    if (capacity < total) {
      *length_in_out = total;
      return VXCLI_ISOTP_BUFFER_TOO_SMALL;
    }
    memcpy(buffer, frame.data + header, total);
    *length_in_out = total;
    stats->bytes = total;
    return VXCLI_ISOTP_OK;
  }
  if (type != 1 || frame.length < 2) return VXCLI_ISOTP_PROTOCOL_ERROR;

  const uint32_t total = ((frame.data[0] & 0x0Fu) << 8) | frame.data[1];
  if (total == 0) return VXCLI_ISOTP_PROTOCOL_ERROR;  // 32-bit escaped length not supported
  if (total > config->max_length) return VXCLI_ISOTP_REMOTE_OVERFLOW;
  if (capacity < total) {
    // Tell the sender to give up before it floods us with consecutive frames.
    send_flow_control(config, link, 2, timeout_ms, stats);
    *length_in_out = total;
    return VXCLI_ISOTP_BUFFER_TOO_SMALL;
  }
  uint32_t received = frame.length - 2u;
  if (received > total) received = total;
  memcpy(buffer, frame.data + 2, received);
  status = send_flow_control(config, link, 0, timeout_ms, stats);
  if (status != VXCLI_ISOTP_OK) return status;

  uint8_t expected = 1;
  uint32_t in_block = 0;
  while (received < total) {
    status = receive_matching(config, link, &frame, timeout_ms, stats);
    if (status != VXCLI_ISOTP_OK) return status;
    if ((frame.data[0] >> 4) != 2 || frame.length < 2) return VXCLI_ISOTP_PROTOCOL_ERROR;
    if ((frame.data[0] & 0x0F) != expected) return VXCLI_ISOTP_SEQUENCE_ERROR;
    uint32_t chunk = frame.length - 1u;
    if (chunk > total - received) chunk = total - received;
    memcpy(buffer + received, frame.data + 1, chunk);
    received += chunk;
    expected = (expected + 1) & 0x0F;
    if (received < total) {
      in_block++;
      if (config->block_size != 0 && in_block == config->block_size) {
        status = send_flow_control(config, link, 0, timeout_ms, stats);
        if (status != VXCLI_ISOTP_OK) return status;
        in_block = 0;
      }
    }
  }
  *length_in_out = total;
  stats->bytes = total;
  return VXCLI_ISOTP_OK;
}

const char* vxcli_isotp_engine_status_string(int status) {
  switch (status) {
    case 0: return "ok";
    case 1: return "invalid argument";
    case 2: return "timeout";
    case 3: return "I/O error";
    case 4: return "protocol error";
    case 5: return "consecutive-frame sequence error";
    case 6: return "remote flow-control overflow";
    case 7: return "receive buffer too small";
    case 8: return "flow-control WAIT limit exceeded";
    case 9: return "receive broker gap";
    case 10: return "receive broker epoch changed";
    case 11: return "channel closed";
    case 12: return "cancelled";
    default: return "unknown ISO-TP error";
  }
}

uint32_t vxcli_isotp_status_to_vxapi(int status, uint32_t last_device_status) {
  switch (status) {
    case VXCLI_ISOTP_OK: return 0;
    case VXCLI_ISOTP_INVALID_ARGUMENT: return 0x8000;
    case VXCLI_ISOTP_TIMEOUT: return 0x80000;
    case VXCLI_ISOTP_IO_ERROR: return last_device_status ? last_device_status : 0x10000;
    case VXCLI_ISOTP_BUFFER_TOO_SMALL:
    case VXCLI_ISOTP_BROKER_GAP: return 0x40;
    default: return 0x1C00;
  }
}
