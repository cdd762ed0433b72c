// In-memory frame link for engine tests: frames queued for reception, frames
// sent recorded, a virtual clock advanced by waits and sleeps.
#pragma once

#include <cstring>
#include <deque>
#include <functional>
#include <initializer_list>
#include <vector>

#include "diag/isotp.h"

namespace diagtest {

inline vxcli_isotp_frame make_frame(uint32_t id, std::initializer_list<int> bytes,
                                    bool fd = false) {
  vxcli_isotp_frame f;
  memset(&f, 0, sizeof f);
  f.id = id;
  f.fd = fd ? 1 : 0;
  for (int b : bytes) f.data[f.length++] = static_cast<uint8_t>(b);
  return f;
}

inline std::vector<uint8_t> frame_bytes(const vxcli_isotp_frame& f) {
  return std::vector<uint8_t>(f.data, f.data + f.length);
}

struct ScriptLink {
  std::deque<vxcli_isotp_frame> rx;
  std::vector<vxcli_isotp_frame> sent;
  std::vector<uint64_t> send_times;
  std::vector<int32_t> receive_timeouts;
  // Called after every sent frame; typically queues the peer's answer.
  std::function<void(ScriptLink&, const vxcli_isotp_frame&)> on_send;
  uint64_t clock_us = 1000000;
  uint64_t slept_us = 0;
  bool cancel = false;
  int cancel_after_sends = -1;  // sets `cancel` once this many frames went out
  int send_status = 0;

  vxcli_isotp_callbacks callbacks(bool with_clock = true) {
    vxcli_isotp_callbacks cb{};
    cb.context = this;
    cb.send_frame = [](void* c, const vxcli_isotp_frame* f, int32_t) {
      auto* self = static_cast<ScriptLink*>(c);
      if (self->send_status) return self->send_status;
      self->sent.push_back(*f);
      self->send_times.push_back(self->clock_us);
      if (self->cancel_after_sends >= 0 &&
          static_cast<int>(self->sent.size()) >= self->cancel_after_sends)
        self->cancel = true;
      if (self->on_send) self->on_send(*self, *f);
      return 0;
    };
    cb.receive_frame = [](void* c, vxcli_isotp_frame* f, int32_t timeout_ms) {
      auto* self = static_cast<ScriptLink*>(c);
      self->receive_timeouts.push_back(timeout_ms);
      if (self->rx.empty()) {
        if (timeout_ms > 0) self->clock_us += static_cast<uint64_t>(timeout_ms) * 1000;
        return static_cast<int>(VXCLI_ISOTP_TIMEOUT);
      }
      *f = self->rx.front();
      self->rx.pop_front();
      self->clock_us += 10;
      return 0;
    };
    if (with_clock) {
      cb.now_us = [](void* c) { return static_cast<ScriptLink*>(c)->clock_us; };
      cb.sleep_us = [](void* c, uint32_t us) {
        auto* self = static_cast<ScriptLink*>(c);
        self->clock_us += us;
        self->slept_us += us;
      };
    }
    cb.cancelled = [](void* c) { return static_cast<ScriptLink*>(c)->cancel ? 1 : 0; };
    return cb;
  }
};

}  // namespace diagtest
