// Control channel between the library (and the vxsim tool) and the device
// service: one SOCK_SEQPACKET connection per process, one request and one
// answer at a time, descriptors passed with SCM_RIGHTS. Frames never travel
// here; they use the shared rings of shm.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "vxapi.h"

namespace vxsim {

enum Op : uint32_t {
  kOpHello = 1,      // -> fds: global shm, doorbell eventfd
  kOpEnumerate,      // -> VXChannelInfo[]
  kOpOpen,           // OpenRequest -> OpenReply, fds: channel shm, notification eventfd
  kOpClose,
  kOpSetFilters,     // arg0 count, VXRxFilter[]
  kOpSetTasks,       // arg0 count, VXTxTask[]
  kOpGetTasks,       // arg0 count -> VXTxTask[]
  kOpSetRoutes,
  kOpGetRoutes,
  kOpCanStatus,      // -> VXCanStatus
  kOpRecover,
  kOpActivate,
  kOpLinWrite,       // VXLinMessage: slave response update (masters use the TX ring)
  kOpLinVoltage,     // arg0
  kOpLinProtocol,    // VXLinProtocol
  kOpSetBitrate,     // VXBitrate
  kOpSetMode,        // arg0
  kOpSetTermination, // arg0
  kOpGetConfig,      // -> VXChannelConfig
  kOpSyncClocks,     // uint32_t channel ids[]
  kOpStatistic,      // arg0 group, arg1 item -> value0
  // control tool
  kOpList = 100,     // -> text
  kOpStats,          // -> text
  kOpBusOff,         // text serial, arg0 port, arg1 stuck
  kOpPortRecover,    // text serial, arg0 port
  kOpUnplug,         // text serial
  kOpReplug,         // text serial
  kOpShutdown,
};

struct MsgHeader {
  uint32_t code;      // request: Op; answer: VXStatus
  uint32_t channel;   // request: the service's channel id
  uint32_t arg[6];
  char text[32];
  uint32_t size;      // payload bytes that follow
  uint32_t reserved;
};

constexpr size_t kMaxPayload = 60 * 1024;
constexpr size_t kMaxMessage = sizeof(MsgHeader) + kMaxPayload;

struct OpenRequest {
  char serial[16];
  uint32_t port;
  uint32_t mode;
  uint32_t resistance;
  uint32_t rx_queue;
  uint32_t flags;
  VXBitrate bitrate;
};

struct OpenReply {
  VXChannelInfo info;
  uint32_t reserved0;
  VXChannelConfig config;
  uint32_t device_index;
  uint32_t rx_capacity;
  uint32_t tx_capacity;
  uint32_t reserved1;
  uint64_t shm_size;
};

// Sends one message with up to 4 descriptors; 0 or -1.
int send_message(int sock, const MsgHeader& h, const void* payload, const int* fds, int nfds);
// Receives one message; descriptors beyond `max_fds` are closed. 0, or -1 on
// error or when the peer has gone. `payload` is resized to the payload.
int recv_message(int sock, MsgHeader& h, std::vector<uint8_t>& payload, int* fds, int max_fds,
                 int& nfds);

// Directory holding the service's socket, lock and log (VXSIM_DIR, else
// $XDG_RUNTIME_DIR/vxsim, else /tmp/vxsim-<uid>). Created with mode 0700.
std::string sim_dir();
std::string socket_path(const std::string& dir);

// Connects to the service of `dir`. With `start`, a missing service is
// started from `service_exe` ("vxsim serve --detach") and waited for.
// Returns the connected socket or -1 with a message.
int connect_service(const std::string& dir, bool start, const std::string& service_exe,
                    std::string& error);

// Request/answer helper over a connected socket; answer payload into `reply`.
VXStatus call_service(int sock, MsgHeader& h, const void* payload, size_t size,
                      std::vector<uint8_t>& reply, int* fds = nullptr, int max_fds = 0,
                      int* nfds = nullptr);

}  // namespace vxsim
