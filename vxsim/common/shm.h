// Memory shared between the device service and the processes using the
// library. The service is the only writer of everything marked "service";
// a client process is the only writer of what is marked "client".
//
// Data path: a client appends written frames to its channel's TX ring and
// rings the service's doorbell (an eventfd) only when the service sleeps;
// the service appends received records to each channel's RX ring and
// signals the channel's eventfd only when the reader asked for it (armed).
// No socket round trip per frame.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "vxapi.h"

namespace vxsim {

constexpr uint32_t kMaxDevices = 32;
constexpr uint32_t kMaxPorts = 8;
constexpr uint32_t kGlobalMagic = 0x56585347;   // "GSXV"
constexpr uint32_t kChannelMagic = 0x56585343;  // "CSXV"
constexpr uint32_t kDefaultRxQueue = 16384;
constexpr uint32_t kMaxRxQueue = 1u << 20;
constexpr uint32_t kTxQueue = 4096;

static_assert(std::atomic<uint64_t>::is_always_lock_free, "shared atomics must be lock-free");
static_assert(std::atomic<uint32_t>::is_always_lock_free, "shared atomics must be lock-free");

// One device's clock: timestamp_us = start_us + (monotonic_ns - epoch_ns) / 1000, mod 2^32.
struct DeviceClock {
  std::atomic<int64_t> epoch_ns;
  std::atomic<uint32_t> start_us;
  uint32_t pad;
};

struct GlobalShm {
  uint32_t magic;
  uint32_t size;
  int64_t realtime_offset_ns;      // service: realtime - monotonic at start
  alignas(64) std::atomic<uint32_t> sleeping;  // service: waiting for the doorbell
  alignas(64) DeviceClock clocks[kMaxDevices];  // service
};

// Channel state bits (service).
constexpr uint32_t kStateDead = 0x1;      // device unplugged
constexpr uint32_t kStateBusOff = 0x2;    // port is bus-off
constexpr uint32_t kStateShutdown = 0x4;  // service stopped

struct ChannelShm {
  uint32_t magic;
  uint32_t rx_capacity;
  uint32_t tx_capacity;
  uint32_t device_index;
  alignas(64) std::atomic<uint64_t> rx_head;     // service
  std::atomic<uint64_t> rx_dropped;              // service
  std::atomic<uint64_t> rx_frames;               // service: records queued
  std::atomic<uint64_t> filtered;                // service
  alignas(64) std::atomic<uint64_t> rx_tail;     // client
  std::atomic<uint32_t> rx_armed;                // client sets, service clears
  alignas(64) std::atomic<uint64_t> tx_head;     // client
  std::atomic<uint64_t> tx_frames;               // client
  std::atomic<uint64_t> tx_errors;               // client
  std::atomic<uint32_t> tx_waiters;              // client
  alignas(64) std::atomic<uint64_t> tx_tail;     // service
  std::atomic<uint32_t> tx_seq;                  // service: futex word, bumped after consuming
  alignas(64) std::atomic<uint32_t> state;       // service: kState* bits
  std::atomic<uint32_t> mode;                    // service: current open mode
  std::atomic<uint32_t> fd_enabled;              // service
};

inline size_t channel_shm_size(uint32_t rx_capacity, uint32_t tx_capacity) {
  size_t head = (sizeof(ChannelShm) + 63) & ~size_t(63);
  return head + size_t(tx_capacity) * sizeof(VXMessage) + size_t(rx_capacity) * sizeof(VXMessage);
}
inline VXMessage* channel_tx_ring(ChannelShm* s) {
  size_t head = (sizeof(ChannelShm) + 63) & ~size_t(63);
  return reinterpret_cast<VXMessage*>(reinterpret_cast<char*>(s) + head);
}
inline VXMessage* channel_rx_ring(ChannelShm* s) { return channel_tx_ring(s) + s->tx_capacity; }

// Device time for a monotonic instant.
inline uint32_t device_time_us(const DeviceClock& c, int64_t mono_ns) {
  int64_t delta = mono_ns - c.epoch_ns.load(std::memory_order_relaxed);
  return static_cast<uint32_t>(c.start_us.load(std::memory_order_relaxed) +
                               static_cast<uint64_t>(delta / 1000));
}

int64_t monotonic_ns();

// Futex on a 32-bit word in shared memory (works across processes).
int futex_wait(std::atomic<uint32_t>* word, uint32_t expected, int64_t timeout_ns);
int futex_wake(std::atomic<uint32_t>* word, int count);

}  // namespace vxsim
