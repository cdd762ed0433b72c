// ISO-TP engine against a peer that answers with arbitrary frames. Receive
// mode reassembles whatever arrives; send mode reacts to arbitrary flow
// control. Time is simulated so waits and STmin cost nothing.
#include <cstdint>
#include <cstring>

#include "diag/isotp.h"

namespace {

constexpr uint8_t kDataLengths[] = {8, 12, 16, 20, 24, 32, 48, 64};

struct Peer {
  const uint8_t* data;
  size_t size;
  size_t at;
  uint64_t now_us;
  uint32_t sent;
  uint32_t tx_dl;
};

int send_frame(void* context, const vxcli_isotp_frame* frame, int32_t) {
  auto* peer = static_cast<Peer*>(context);
  if (frame->length < 1 || frame->length > 64) __builtin_trap();
  if (frame->length > peer->tx_dl && frame->data[0] >> 4 != 3) __builtin_trap();
  peer->sent++;
  peer->now_us += 100;
  return VXCLI_ISOTP_OK;
}

// Frame record: one byte (bit 7: a foreign identifier, bits 0-6: length), then the bytes.
int receive_frame(void* context, vxcli_isotp_frame* frame, int32_t timeout_ms) {
  auto* peer = static_cast<Peer*>(context);
  if (peer->at >= peer->size) {
    // Nothing more will come: the full wait passes.
    peer->now_us += timeout_ms > 0 ? static_cast<uint64_t>(timeout_ms) * 1000 : 1000;
    return VXCLI_ISOTP_TIMEOUT;
  }
  uint8_t head = peer->data[peer->at++];
  memset(frame, 0, sizeof *frame);
  frame->id = (head & 0x80) ? 0x123 : 0x7E8;
  frame->length = head & 0x7F;
  size_t n = frame->length > 64 ? 64 : frame->length;
  if (n > peer->size - peer->at) n = peer->size - peer->at;
  memcpy(frame->data, peer->data + peer->at, n);
  peer->at += n;
  frame->device_timestamp = peer->now_us;
  frame->host_timestamp_us = peer->now_us;
  peer->now_us += 500;
  return VXCLI_ISOTP_OK;
}

uint64_t now_us(void* context) { return static_cast<Peer*>(context)->now_us; }
void sleep_us(void* context, uint32_t us) { static_cast<Peer*>(context)->now_us += us; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 6) return 0;
  vxcli_isotp_config config;
  vxcli_isotp_config_init(&config);
  config.tx_id = 0x7E0;
  config.rx_id = 0x7E8;
  const uint8_t mode = data[0];
  config.fd = (mode & 1) ? 1 : 0;
  config.padding = (mode & 2) ? 1 : 0;
  config.tx_dl = config.fd ? kDataLengths[(mode >> 4) & 7] : 8;
  config.block_size = data[1];
  config.st_min = data[2];
  config.wait_limit = data[3] & 7;
  config.max_length = static_cast<uint16_t>(1 + ((data[4] | (data[5] << 8)) % VXCLI_ISOTP_MAX_PAYLOAD));

  Peer peer = {data, size, 6, 0, 0, config.tx_dl};
  vxcli_isotp_callbacks link = {send_frame, receive_frame, now_us, sleep_us, nullptr, nullptr, &peer};
  vxcli_isotp_stats stats;
  static uint8_t buffer[VXCLI_ISOTP_MAX_PAYLOAD];
  if (mode & 4) {
    uint32_t length = config.max_length;
    for (uint32_t i = 0; i < length; i++) buffer[i] = static_cast<uint8_t>(i);
    vxcli_isotp_engine_send(&config, &link, buffer, length, 1000, &stats);
  } else {
    uint32_t capacity = (mode & 8) ? 64 : sizeof buffer;
    uint32_t length = capacity;
    int status = vxcli_isotp_engine_receive(&config, &link, buffer, &length, 1000, &stats);
    if (status == VXCLI_ISOTP_OK && (length > capacity || length > config.max_length)) __builtin_trap();
  }
  // Every frame costs simulated time, so a run that outlasts its input by
  // much means the engine loops without reading.
  if (peer.sent > 2 * size + 4096) __builtin_trap();
  return 0;
}
