// The LIN system schedule compiler and the slot table copies, against a slot
// opened on the virtual analyzer inside this process.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "cli/hooks.h"
#include "daemon/daemon_services.h"
#include "daemon/daemon_state.h"
#include "message/lin.h"
#include "vxtest.h"

namespace {

DaemonScheduleEntry header(uint8_t id, uint32_t delay, uint8_t flags = VX_LINTASK_MASTER_WRITE) {
  DaemonScheduleEntry e;
  memset(&e, 0, sizeof e);
  e.task.type = VX_TXTASK_FIXED;
  e.task.kind = VX_TXTASK_KIND_LIN_HEADER;
  e.task.flags = flags;
  e.task.lin_id = id;
  e.task.length = 2;
  e.delay_ms = delay;
  return e;
}

TEST(DaemonScheduleBuild, OffsetsAndRoundFromDelays) {
  std::vector<DaemonScheduleEntry> entries = {header(0x10, 20), header(0x11, 10), header(0x12, 30)};
  VXTxTask table[64];
  int length = -1;
  ASSERT_EQ(daemon_build_system_schedule(entries.data(), 3, table, &length), VX_OK);
  EXPECT_EQ(length, 3);
  // Offsets start one smallest slot in and then follow the slots before each entry.
  EXPECT_EQ(table[0].delay, 10);
  EXPECT_EQ(table[1].delay, 30);
  EXPECT_EQ(table[2].delay, 40);
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(table[i].cycle, 60u);
    EXPECT_EQ(table[i].lin_id, 0x10 + i);
    EXPECT_EQ(table[i].kind, VX_TXTASK_KIND_LIN_HEADER);
  }
  EXPECT_EQ(table[3].type, 0);

  // Unused entries keep their index free and do not count towards the round.
  entries[1].task.type = 0;
  ASSERT_EQ(daemon_build_system_schedule(entries.data(), 3, table, &length), VX_OK);
  EXPECT_EQ(table[1].type, 0);
  EXPECT_EQ(table[0].delay, 20);
  EXPECT_EQ(table[2].delay, 40);
  EXPECT_EQ(table[2].cycle, 50u);

  ASSERT_EQ(daemon_build_system_schedule(nullptr, 0, table, &length), VX_OK);
  EXPECT_EQ(length, 0);
}

TEST(DaemonScheduleBuild, RefusesBadDelaysAndSizes) {
  VXTxTask table[64];
  int length = 0;
  std::vector<DaemonScheduleEntry> zero = {header(1, 10), header(2, 0)};
  EXPECT_EQ(daemon_build_system_schedule(zero.data(), 2, table, &length), VX_ERR_INVALID_PARAM_VALUE);
  std::vector<DaemonScheduleEntry> long_round = {header(1, 40000), header(2, 25536)};
  EXPECT_EQ(daemon_build_system_schedule(long_round.data(), 2, table, &length), VX_ERR_INVALID_PARAM_VALUE);
  long_round[1].delay_ms = 25535;  // exactly 65535 ms is still one round
  EXPECT_EQ(daemon_build_system_schedule(long_round.data(), 2, table, &length), VX_OK);
  std::vector<DaemonScheduleEntry> unused = {header(1, 10)};
  unused[0].task.type = 0;
  EXPECT_EQ(daemon_build_system_schedule(unused.data(), 1, table, &length), VX_ERR_INVALID_PARAM_VALUE);
  std::vector<DaemonScheduleEntry> many(65, header(1, 1));
  EXPECT_EQ(daemon_build_system_schedule(many.data(), 65, table, &length), VX_ERR_INVALID_PARAM_VALUE);
}

// A slot of the shared table opened directly on the virtual analyzer.
class DaemonSlotTables : public testing::Test {
 protected:
  void SetUp() override {
    setenv("VXSIM_DIR", box_.path("sim").c_str(), 1);
    char message[256];
    ASSERT_EQ(vxcli_device_library_init(message, sizeof message), 0) << message;
    memset(g_daemon_slots, 0, sizeof g_daemon_slots);
  }
  void TearDown() override {
    for (Slot& s : g_daemon_slots)
      if (s.open) {
        VX_SetTxTasks(s.handle, nullptr, 0);
        VX_Close(s.handle);
      }
    memset(g_daemon_slots, 0, sizeof g_daemon_slots);
    vxcli_device_library_shutdown();
  }
  void open_slot(int index, int port, uint32_t mode) {
    VXChannelInfo infos[32];
    uint32_t count = 32;
    ASSERT_EQ(VX_Enumerate(infos, &count), VX_OK);
    Slot& s = g_daemon_slots[index];
    s.info = infos[port];
    s.lin = (s.info.capability & VX_CAP_CAN) == 0;
    s.mode = mode;
    s.bitrate.nominal_kbps = s.lin ? 19200 : 500;
    ASSERT_EQ(VX_OpenEx(&s.handle, &s.info, mode, 0, &s.bitrate, 0, s.lin ? VX_OPEN_LIN : 0), VX_OK);
    s.open = true;
  }
  vxtest::Sandbox box_;
};

TEST_F(DaemonSlotTables, CopyFollowsWhatTheDeviceAccepted) {
  open_slot(0, 0, VX_CAN_MODE_NORMAL);
  EXPECT_EQ(daemon_txtask_capacity(0), 64);
  EXPECT_EQ(daemon_route_capacity(0), 64);
  EXPECT_EQ(daemon_rxfilter_count(0), 32);
  EXPECT_EQ(daemon_txtask_capacity(5), 0);  // closed slot

  VXTxTask tasks[2];
  memset(tasks, 0, sizeof tasks);
  tasks[0].type = VX_TXTASK_FIXED;
  tasks[0].id = 0x100;
  tasks[0].length = 1;
  tasks[0].cycle = 1000;
  ASSERT_EQ(daemon_apply_txtasks(0, tasks, 1), VX_OK);
  EXPECT_EQ(g_daemon_slots[0].txtask_count, 1);
  EXPECT_EQ(g_daemon_slots[0].txtasks[0].id, 0x100u);

  // A task the device refuses (cycle 0 without a single round) leaves the copy alone.
  tasks[1] = tasks[0];
  tasks[1].cycle = 0;
  EXPECT_EQ(daemon_apply_txtasks(0, tasks, 2), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(g_daemon_slots[0].txtask_count, 1);
  EXPECT_EQ(g_daemon_slots[0].txtasks[1].type, 0);
  EXPECT_EQ(daemon_apply_txtasks(0, tasks, 65), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(daemon_apply_txtasks(3, tasks, 1), VX_ERR_INVALID_PARAM_VALUE);

  // The device lost its table (as after a replug): the copy brings it back.
  ASSERT_EQ(VX_SetTxTasks(g_daemon_slots[0].handle, nullptr, 0), VX_OK);
  VXRoute route;
  memset(&route, 0, sizeof route);
  route.type = VX_ROUTE_UNICAST;
  route.target = 1;
  ASSERT_EQ(daemon_apply_routes(0, &route, 1), VX_OK);
  ASSERT_EQ(VX_SetMsgRoutes(g_daemon_slots[0].handle, nullptr, 0), VX_OK);
  ASSERT_EQ(daemon_restore_slot_tables(0), VX_OK);
  VXTxTask device[64];
  ASSERT_EQ(VX_GetTxTasks(g_daemon_slots[0].handle, device, 64), VX_OK);
  EXPECT_EQ(memcmp(&device[0], &tasks[0], sizeof tasks[0]), 0);
  VXRoute routes[64];
  ASSERT_EQ(VX_GetMsgRoutes(g_daemon_slots[0].handle, routes, 64), VX_OK);
  EXPECT_EQ(routes[0].target, 1);

  ASSERT_EQ(daemon_apply_txtasks(0, nullptr, 0), VX_OK);
  EXPECT_EQ(g_daemon_slots[0].txtask_count, 0);
  ASSERT_EQ(VX_GetTxTasks(g_daemon_slots[0].handle, device, 64), VX_OK);
  EXPECT_EQ(device[0].type, 0);
}

TEST_F(DaemonSlotTables, CompiledScheduleKeepsTheSlotsResponses) {
  open_slot(0, 4, VX_LIN_MODE_MASTER);
  VXLinResponseTask response;
  const uint8_t data[2] = {1, 2};
  vxcli_init_lin_response_task(&response, 0x30, data, 2, VXCLI_LIN_CHECKSUM_ENHANCED, 0);
  VXTxTask first;
  memcpy(&first, &response, sizeof first);
  ASSERT_EQ(daemon_apply_txtasks(0, &first, 1), VX_OK);

  std::vector<DaemonScheduleEntry> entries = {header(0x10, 15), header(0x30, 15, 0)};
  VXTxTask table[64];
  ASSERT_EQ(daemon_compile_system_schedule(0, entries.data(), 2, table), VX_OK);
  EXPECT_EQ(g_daemon_slots[0].txtask_count, 3);
  EXPECT_EQ(g_daemon_slots[0].txtasks[0].kind, VX_TXTASK_KIND_LIN_HEADER);
  EXPECT_EQ(g_daemon_slots[0].txtasks[1].cycle, 30u);
  EXPECT_EQ(g_daemon_slots[0].txtasks[2].kind, VX_TXTASK_KIND_LIN_RESPONSE);

  // Deactivating compiles nothing: only the response stays.
  ASSERT_EQ(daemon_compile_system_schedule(0, nullptr, 0, table), VX_OK);
  EXPECT_EQ(g_daemon_slots[0].txtask_count, 1);
  EXPECT_EQ(g_daemon_slots[0].txtasks[0].kind, VX_TXTASK_KIND_LIN_RESPONSE);
  EXPECT_EQ(daemon_compile_system_schedule(7, entries.data(), 2, table), VX_ERR_INVALID_PARAM_VALUE);
}

}  // namespace
