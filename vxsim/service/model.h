// Object model of the virtual hardware, shared by the service's files.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../common/shm.h"
#include "../common/topology.h"
#include "vxapi.h"

namespace vxsim {

struct Client;
struct Device;

struct TaskRun {
  bool active = false;
  bool value_init = false;
  int64_t next_ns = 0;
  uint32_t done = 0;
  uint32_t value = 0;
};

struct Channel {
  uint32_t id = 0;
  Client* client = nullptr;
  struct Port* port = nullptr;
  uint32_t mode = 0;
  uint32_t flags = 0;
  bool fd_enabled = false;
  uint8_t lin_version = 0x22;
  uint8_t lin_checksum = VX_LIN_CHECKSUM_ENHANCED;
  uint8_t lin_power = 0;
  VXRxFilter filters[VX_RXFILTER_CAPACITY] = {};
  uint32_t filter_count = 0;
  ChannelShm* shm = nullptr;
  size_t shm_size = 0;
  int shm_fd = -1;
  int event_fd = -1;
  VXMessage* rx = nullptr;
  VXMessage* tx = nullptr;
};

struct LinResponse {
  bool set = false;
  VXLinMessage msg{};
};

struct Port {
  Device* dev = nullptr;
  unsigned index = 0;
  uint16_t capability = 0;
  int bus = 0;
  bool lin = false;
  // Controller settings shared by every channel on the port.
  VXBitrate bitrate{};
  uint32_t resistance = 120;
  bool busoff = false;
  bool busoff_stuck = false;
  uint32_t busoff_count = 0;
  // Device state that outlives channels.
  VXTxTask tasks[VX_TXTASK_CAPACITY] = {};
  TaskRun runs[VX_TXTASK_CAPACITY];
  VXRoute routes[VX_ROUTE_CAPACITY] = {};
  LinResponse primed[64];
  uint64_t rng = 0x9E3779B97F4A7C15ull;
  // Traffic counters.
  uint64_t tx_frames = 0, rx_frames = 0, task_frames = 0, routed = 0, dropped = 0;
  std::vector<Channel*> channels;

  bool has_state() const;
  bool has_tasks() const;
  bool has_routes() const;
};

struct Device {
  DeviceSpec spec;
  unsigned index = 0;
  bool present = true;
  std::vector<std::unique_ptr<Port>> ports;
};

struct Bus {
  int number = 0;
  bool lin = false;
  std::vector<Port*> ports;
  int64_t last_ns = 0;
  uint64_t frames = 0, fd_frames = 0, bytes = 0, lin_frames = 0, lin_errors = 0, mismatched = 0;
};

struct Client {
  int fd = -1;
  pid_t pid = 0;
  std::vector<Channel*> channels;
};

}  // namespace vxsim
