// Device-side services and faults: TX tasks, routes, statistics, bus-off,
// unplug, dying clients and the service's own lifetime.
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "sim_fixture.h"

using namespace simtest;

namespace {

void sleep_ms(int ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

pid_t service_pid(const std::string& dir) {
  std::string text = vxtest::read_file(dir + "/service.pid");
  return text.empty() ? 0 : static_cast<pid_t>(std::atoi(text.c_str()));
}

// Exited counts as gone even before the parent reaped it.
bool running(pid_t pid) {
  std::string stat = vxtest::read_file("/proc/" + std::to_string(pid) + "/stat");
  size_t paren = stat.rfind(')');
  return paren != std::string::npos && paren + 2 < stat.size() && stat[paren + 2] != 'Z' && stat[paren + 2] != 'X';
}

bool gone_within(pid_t pid, int ms) {
  for (int i = 0; i < ms / 20 && running(pid); ++i) sleep_ms(20);
  return !running(pid);
}

uint32_t stat_of(VXHandle h, uint16_t group, uint16_t item) {
  uint32_t v = 0xFFFFFFFF;
  EXPECT_EQ(VX_Control(h, VX_CONTROL_STATISTIC, group, item, &v, 4), VX_OK);
  return v;
}

}  // namespace

class DeviceTest : public SimTest {};

TEST_F(DeviceTest, TxTasksKeepRunningAfterTheirProcessExits) {
  ASSERT_EQ(helper("task 10356 3 321 10"), 0);
  VXHandle rx = open_can("10357", 3);
  VXMessage r;
  int fixed = 0;
  std::vector<uint8_t> counter;
  while (fixed < 5 || counter.size() < 6) {
    ASSERT_EQ(VX_Read(rx, &r, 2000, nullptr), VX_OK);
    EXPECT_TRUE(r.flags & VX_MSGF_TASK);
    if (plain_id(r) == 0x321) {
      ++fixed;
      EXPECT_EQ(r.data[0], 0xAB);
    } else {
      ASSERT_EQ(plain_id(r), 0x322u);
      counter.push_back(r.data[1]);
    }
  }
  // incdata field of 8 bits at bit 8, counting 5..7 and starting over.
  for (size_t i = 1; i < counter.size(); ++i) EXPECT_EQ(counter[i], counter[i - 1] == 7 ? 5 : counter[i - 1] + 1);
  EXPECT_GE(counter[0], 5);

  // Another process (this one) reads the table back and clears it.
  VXHandle h = open_can("10356", 3);
  VXTxTask table[64];
  ASSERT_EQ(VX_GetTxTasks(h, table, 64), VX_OK);
  EXPECT_EQ(table[0].type, VX_TXTASK_FIXED);
  EXPECT_EQ(table[0].cycle, 10u);
  EXPECT_EQ(table[1].type, VX_TXTASK_INCDATA);
  EXPECT_EQ(table[2].type, VX_TXTASK_FREE);
  ASSERT_EQ(VX_SetTxTasks(h, nullptr, 0), VX_OK);
  sleep_ms(30);
  VX_ClearBuffer(rx);
  EXPECT_EQ(VX_Read(rx, &r, 60, nullptr), VX_ERR_QUEUE_EMPTY);
}

TEST_F(DeviceTest, TaskRoundsPatternsAndValidation) {
  VXHandle tx = open_can("10356", 2);
  VXHandle rx = open_can("10357", 2);
  VXTxTask t[2] = {};
  t[0].type = VX_TXTASK_FIXED;
  t[0].id = 0x10;
  t[0].cycle = 5;
  t[0].rounds = 3;
  t[1].type = VX_TXTASK_RANDOMID;
  t[1].flags = VX_FRAME_IDE;
  t[1].id = 0x1000;
  t[1].cycle = 5;
  t[1].rounds = 20;
  t[1].inc_min = 0x1000;
  t[1].inc_max = 0x100F;
  ASSERT_EQ(VX_SetTxTasks(tx, t, 2), VX_OK);
  int fixed = 0, random = 0;
  VXMessage r;
  while (VX_Read(rx, &r, 300, nullptr) == VX_OK) {
    if (plain_id(r) == 0x10) {
      ++fixed;
    } else {
      ++random;
      EXPECT_TRUE(r.control & VX_CTRL_IDE);
      EXPECT_GE(plain_id(r), 0x1000u);
      EXPECT_LE(plain_id(r), 0x100Fu);
    }
  }
  EXPECT_EQ(fixed, 3);
  EXPECT_EQ(random, 20);
  // The sending channel sees its port's task frames as transmissions.
  ASSERT_TRUE(read_until(tx, r, [](const VXMessage& m) { return plain_id(m) == 0x10; }, 500));
  EXPECT_TRUE(is_tx(r));

  VXTxTask bad = t[0];
  bad.length = 9;  // classic frame
  EXPECT_EQ(VX_SetTxTasks(tx, &bad, 1), VX_ERR_INVALID_PARAM_VALUE);
  bad = t[0];
  bad.cycle = 0;
  bad.rounds = 0;  // would send without pause forever
  EXPECT_EQ(VX_SetTxTasks(tx, &bad, 1), VX_ERR_INVALID_PARAM_VALUE);
  bad = t[0];
  bad.kind = VX_TXTASK_KIND_LIN_RESPONSE;
  EXPECT_EQ(VX_SetTxTasks(tx, &bad, 1), VX_ERR_INVALID_PARAM_VALUE);
  bad = t[0];
  bad.inc_nbits = 33;
  EXPECT_EQ(VX_SetTxTasks(tx, &bad, 1), VX_ERR_INVALID_PARAM_VALUE);
  VXTxTask back[2];
  ASSERT_EQ(VX_GetTxTasks(tx, back, 2), VX_OK);
  EXPECT_EQ(0, std::memcmp(back, t, sizeof t));  // refused tables change nothing
  EXPECT_EQ(VX_SetTxTasks(tx, nullptr, 0), VX_OK);
}

TEST_F(DeviceTest, RoutesForwardMatchingFramesToOtherPorts) {
  VXHandle src = open_can("10356", 1);
  VXRoute routes[2] = {
      {VX_ROUTE_UNICAST, 1, 2, {0, 0, 0}, 0, 0, 0x1FFFFFFF, 0x100},
      {VX_ROUTE_BROADCAST, 1, (1 << 6) | (1 << 7) | (1 << 4), {0, 0, 0}, 0xFF, VX_FRAME_IDE, 0, 0},
  };
  ASSERT_EQ(VX_SetMsgRoutes(src, routes, 2), VX_OK);
  ASSERT_EQ(VX_Close(src), VX_OK);  // routes belong to the device, not the channel

  VXHandle sender = open_can("10357", 1);
  VXHandle bus2 = open_can("10357", 2);
  VXHandle bus7 = open_can("10357", 7);
  for (auto [id, ext] : {std::pair{0x100u, false}, {0x101u, false}, {0x1ABCDEu, true}}) {
    VXMessage m = can_frame(id, {1, 2}, ext);
    ASSERT_EQ(VX_WriteCanMessage(sender, &m), VX_OK);
  }
  VXMessage r;
  ASSERT_EQ(VX_Read(bus2, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(plain_id(r), 0x100u);
  EXPECT_TRUE(r.flags & VX_MSGF_ROUTED);
  EXPECT_EQ(VX_Read(bus2, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
  ASSERT_EQ(VX_Read(bus7, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(plain_id(r), 0x1ABCDEu);
  EXPECT_EQ(VX_Read(bus7, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);

  VXHandle h = open_can("10356", 1);
  VXRoute back[64];
  ASSERT_EQ(VX_GetMsgRoutes(h, back, 64), VX_OK);
  EXPECT_EQ(0, std::memcmp(back, routes, sizeof routes));
  EXPECT_EQ(back[2].type, VX_ROUTE_FREE);
  EXPECT_GE(stat_of(h, VX_STAT_GROUP_PORT, VX_STAT_PORT_ROUTED), 2u);
  VXRoute bad[] = {{VX_ROUTE_UNICAST, 0, 2, {0, 0, 0}, 0, 0, 0, 0},   // wrong source port
                   {VX_ROUTE_UNICAST, 1, 4, {0, 0, 0}, 0, 0, 0, 0},   // LIN port
                   {VX_ROUTE_UNICAST, 1, 1, {0, 0, 0}, 0, 0, 0, 0},   // itself
                   {VX_ROUTE_BROADCAST, 1, 0x30, {0, 0, 0}, 0, 0, 0, 0},  // LIN ports only
                   {3, 1, 2, {0, 0, 0}, 0, 0, 0, 0}};
  for (auto& b : bad) EXPECT_EQ(VX_SetMsgRoutes(h, &b, 1), VX_ERR_INVALID_PARAM_VALUE) << int(b.type) << int(b.target);
  ASSERT_EQ(VX_SetMsgRoutes(h, nullptr, 0), VX_OK);
}

TEST_F(DeviceTest, StatisticsTheCommandLineReads) {
  VXHandle can = open_can("10356", 0);
  VXHandle lin = open_lin("10356", 4, VX_LIN_MODE_SLAVE);
  EXPECT_EQ(stat_of(can, 0, VX_STAT_TXTASK_CAPACITY), 64u);
  EXPECT_EQ(stat_of(can, 0, VX_STAT_RXFILTER_COUNT), 32u);
  EXPECT_EQ(stat_of(can, 0, VX_STAT_ROUTE_CAPACITY), 64u);
  EXPECT_EQ(stat_of(can, 66, 0), 64u);  // the statistic number given as group
  EXPECT_EQ(stat_of(can, 0, VX_STAT_MAX_DATA_LENGTH), 64u);
  EXPECT_EQ(stat_of(can, 0, VX_STAT_GENERATION), 30u);
  EXPECT_EQ(stat_of(can, 0, VX_STAT_PORT_COUNT), 8u);
  EXPECT_EQ(stat_of(lin, 0, VX_STAT_ROUTE_CAPACITY), 0u);
  EXPECT_EQ(stat_of(lin, 0, VX_STAT_LIN_RESPONSES), 64u);
  VXChannelInfo i;
  ASSERT_EQ(VX_GetChannelInfo(can, &i), VX_OK);
  EXPECT_STREQ(reinterpret_cast<char*>(i.serial), "10356");
  EXPECT_EQ(i.generation, 3);
  EXPECT_EQ(i.capability, VX_CAP_CANFD | VX_CAP_CAN | VX_CAP_VIRT);
}

TEST_F(DeviceTest, BusOffInjectionAndRecovery) {
  VXHandle a = open_can("10356", 0);
  VXHandle b = open_can("10357", 0);
  EXPECT_EQ(VX_GetCanStatus(a, nullptr), VX_OK);
  auto r = tool({"busoff", "10356/0"});
  ASSERT_EQ(r.rc, 0) << r.err;
  VXCanStatus st{};
  EXPECT_EQ(VX_GetCanStatus(a, &st), VX_ERR_BUS_OFF);
  EXPECT_EQ(st.state, VX_ERR_BUS_OFF);
  EXPECT_EQ(st.busoff_count, 1u);
  VXMessage m = can_frame(0x5, {5});
  EXPECT_EQ(VX_WriteCanMessage(a, &m), VX_ERR_BUS_OFF);
  ASSERT_EQ(VX_WriteCanMessage(b, &m), VX_OK);
  VXMessage got;
  EXPECT_EQ(VX_Read(a, &got, 50, nullptr), VX_ERR_QUEUE_EMPTY);  // a bus-off controller hears nothing
  EXPECT_NE(tool({"list"}).out.find("BUS-OFF"), std::string::npos);
  ASSERT_EQ(VX_RecoverBusOff(a), VX_OK);
  EXPECT_EQ(VX_GetCanStatus(a, nullptr), VX_OK);
  EXPECT_EQ(VX_WriteCanMessage(a, &m), VX_OK);

  // A stuck fault survives recovery; only reopening resets the controller.
  ASSERT_EQ(tool({"busoff", "10356/0", "--stuck"}).rc, 0);
  EXPECT_EQ(VX_RecoverBusOff(a), VX_ERR_BUS_OFF);
  ASSERT_EQ(VX_Close(a), VX_OK);
  a = open_can("10356", 0);
  EXPECT_EQ(VX_GetCanStatus(a, &st), VX_OK);
  EXPECT_EQ(st.busoff_count, 2u);

  EXPECT_NE(tool({"busoff", "10356/4"}).rc, 0);  // LIN port
  EXPECT_NE(tool({"busoff", "10356"}).rc, 0);
  EXPECT_NE(tool({"busoff", "99999/0"}).rc, 0);
}

TEST_F(DeviceTest, UnplugKillsChannelsAndReplugBringsAFreshDevice) {
  VXHandle a = open_can("10357", 0);
  VXTxTask t{};
  t.type = VX_TXTASK_FIXED;
  t.id = 0x33;
  t.cycle = 1000;
  ASSERT_EQ(VX_SetTxTasks(a, &t, 1), VX_OK);
  VXNotifyHandle n;
  ASSERT_EQ(VX_GetNotification(a, &n), VX_OK);
  VXMessage m;
  while (VX_Read(a, &m, 0, nullptr) == VX_OK) {
  }
  ASSERT_EQ(tool({"unplug", "10357"}).rc, 0);
  uint32_t count = 0;
  ASSERT_EQ(VX_Enumerate(nullptr, &count), VX_OK);
  EXPECT_EQ(count, 8u);
  EXPECT_EQ(VX_WaitForNotifications(&n, 1, 2000), VX_OK);  // readers wake up
  // A task frame sent just before the unplug may still be queued; after it, reads fail.
  VXStatus read_status;
  int queued = 0;
  while ((read_status = VX_Read(a, &m, 0, nullptr)) == VX_OK && ++queued < 16) {
  }
  EXPECT_EQ(read_status, VX_ERR_INVALID_HARDWARE);
  VXMessage f = can_frame(0x1, {1});
  EXPECT_EQ(VX_WriteCanMessage(a, &f), VX_ERR_INVALID_HARDWARE);
  VXHandle h;
  VXBitrate b{500, 2000, 75, 75, {}};
  EXPECT_EQ(VX_OpenEx(&h, &info("10357", 0), 0, 0, &b, 0, 0), VX_ERR_INVALID_HARDWARE);

  ASSERT_EQ(tool({"replug", "10357"}).rc, 0);
  ASSERT_EQ(VX_Enumerate(nullptr, &count), VX_OK);
  EXPECT_EQ(count, 16u);
  EXPECT_EQ(VX_Read(a, &m, 0, nullptr), VX_ERR_INVALID_HARDWARE);  // old handles stay dead
  VXHandle fresh = open_can("10357", 0);
  VXTxTask table[1];
  ASSERT_EQ(VX_GetTxTasks(fresh, table, 1), VX_OK);
  EXPECT_EQ(table[0].type, VX_TXTASK_FREE);  // power loss cleared the table
  EXPECT_EQ(VX_Close(a), VX_OK);
  EXPECT_NE(tool({"unplug", "424242"}).rc, 0);
}

TEST_F(DeviceTest, ClientDyingWithOpenChannelsLeavesTheServiceHealthy) {
  VXHandle rx = open_can("10357", 0);
  EXPECT_EQ(helper("crash 10356 0"), 128 + SIGKILL);
  VXMessage r;
  ASSERT_EQ(VX_Read(rx, &r, 2000, nullptr), VX_OK);  // queued before the crash, still sent
  EXPECT_EQ(plain_id(r), 0x7ABu);
  VXHandle h = open_can("10356", 0);
  uint32_t open_count = 0;
  for (int i = 0; i < 100 && (open_count = stat_of(h, VX_STAT_GROUP_PORT, VX_STAT_PORT_OPEN_COUNT)) != 1; ++i)
    sleep_ms(20);
  EXPECT_EQ(open_count, 1u);
  uint32_t count = 0;
  EXPECT_EQ(VX_Enumerate(nullptr, &count), VX_OK);
}

TEST_F(DeviceTest, ServiceStopsWhenIdleOrItsDirectoryIsRemoved) {
  std::string dir = sandbox_.env()["VXSIM_DIR"];
  EXPECT_EQ(tool({"shutdown"}).rc, 0);  // nothing runs yet
  sandbox_.env()["VXSIM_IDLE_MS"] = "100";
  ASSERT_EQ(tool({"list"}).rc, 0);
  pid_t pid = service_pid(dir);
  ASSERT_GT(pid, 0);
  EXPECT_TRUE(gone_within(pid, 3000));

  // Device state keeps it alive; removing its directory does not.
  ASSERT_EQ(tool({"busoff", "10356/0"}).rc, 0);
  pid = service_pid(dir);
  ASSERT_GT(pid, 0);
  sleep_ms(300);
  EXPECT_TRUE(running(pid));
  std::filesystem::remove_all(dir);
  EXPECT_TRUE(gone_within(pid, 4000));
  std::filesystem::create_directories(dir);

  // A client keeps it alive too, and "shutdown" ends it at once.
  VXHandle h = open_can("10356", 0);
  ASSERT_NE(h, nullptr);
  pid = service_pid(dir);
  ASSERT_EQ(tool({"shutdown"}).rc, 0);
  EXPECT_TRUE(gone_within(pid, 1000));
  VXMessage m = can_frame(1, {});
  EXPECT_EQ(VX_WriteCanMessage(h, &m), VX_ERR_NO_DRIVER);
  uint32_t count = 0;
  EXPECT_EQ(VX_Enumerate(nullptr, &count), VX_OK);  // a new service starts on demand
  EXPECT_EQ(count, 16u);

  // Even a service that was killed is replaced; its channels are gone.
  VXHandle doomed = open_can("10356", 1);
  pid = service_pid(dir);
  ASSERT_GT(pid, 0);
  kill(pid, SIGKILL);
  EXPECT_TRUE(gone_within(pid, 2000));
  EXPECT_EQ(VX_Enumerate(nullptr, &count), VX_OK);
  EXPECT_EQ(count, 16u);
  EXPECT_EQ(VX_WriteCanMessage(doomed, &m), VX_ERR_NO_DRIVER);
  EXPECT_EQ(VX_Close(doomed), VX_OK);
  EXPECT_NE(open_can("10356", 1), nullptr);
}
