// Shared pieces of the virtual analyzer tests: a fixture with private
// hardware (its own VXSIM_DIR) and helper processes that use the library
// from outside the test process.
#pragma once

#include <gtest/gtest.h>

#include <time.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "vxapi.h"
#include "vxtest.h"

namespace simtest {

inline long now_ms() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

class SimTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Environment for the service this test starts (before the first call that needs it).
  void set_env(const std::string& name, const std::string& value);

  const VXChannelInfo& info(const char* serial, unsigned port);
  VXHandle open_can(const char* serial, unsigned port, uint32_t mode = VX_CAN_MODE_NORMAL, uint32_t rx_queue = 0,
                    uint32_t flags = 0, uint16_t kbps = 500);
  VXHandle open_lin(const char* serial, unsigned port, uint32_t mode, uint16_t bps = 19200);

  // Reads records until one satisfies `want` or `timeout_ms` passes.
  template <class Pred>
  bool read_until(VXHandle h, VXMessage& out, Pred want, int timeout_ms = 2000);
  // Everything queued right now.
  std::vector<VXMessage> drain(VXHandle h);

  // Runs the test binary as a helper process with a role (see sim_fixture.cpp); exit status.
  int helper(const std::string& role);
  vxtest::RunResult tool(const std::vector<std::string>& args) { return sandbox_.run_program("vxsim", args, "", 30); }

  vxtest::Sandbox sandbox_;
  std::vector<VXChannelInfo> infos_;
};

VXMessage can_frame(uint32_t id, std::vector<uint8_t> data, bool ext = false, bool fd = false);
uint32_t plain_id(const VXMessage& m);
bool is_tx(const VXMessage& m);

template <class Pred>
bool SimTest::read_until(VXHandle h, VXMessage& out, Pred want, int timeout_ms) {
  auto deadline = now_ms() + timeout_ms;
  for (;;) {
    long left = deadline - now_ms();
    if (left <= 0) return false;
    VXStatus st = VX_Read(h, &out, static_cast<uint32_t>(left), nullptr);
    if (st == VX_OK && want(out)) return true;
    if (st != VX_OK && st != VX_ERR_QUEUE_EMPTY && st != VX_ERR_QUEUE_OVERRUN) return false;
  }
}

}  // namespace simtest
