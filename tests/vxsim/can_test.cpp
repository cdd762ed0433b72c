// CAN / CAN FD behaviour of the virtual analyzer through the public interface.
#include <time.h>

#include <cstring>
#include <thread>

#include "sim_fixture.h"

using namespace simtest;

namespace {

void sleep_ms(int ms) {
  timespec ts{ms / 1000, (ms % 1000) * 1000000L};
  nanosleep(&ts, nullptr);
}

uint64_t realtime_ns() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

}  // namespace

class CanTest : public SimTest {};

TEST_F(CanTest, FrameReachesTheBusAndComesBackAsConfirmation) {
  VXHandle a = open_can("10356", 0);
  VXHandle b = open_can("10357", 0);
  VXHandle same_port = open_can("10356", 0);
  VXHandle other_bus = open_can("10357", 1);
  VXMessage m = can_frame(0x18FF1234, {1, 2, 3, 4, 5, 6, 7, 8}, true);
  uint32_t written_at = 0;
  ASSERT_EQ(VX_Write(a, &m, 100, &written_at), VX_OK);

  VXMessage r;
  ASSERT_EQ(VX_Read(b, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(r.header, VX_MSG_HEADER_CAN);
  EXPECT_EQ(r.length, VX_MSG_PAYLOAD_LEN);
  EXPECT_EQ(plain_id(r), 0x18FF1234u);
  EXPECT_EQ(r.control & VX_CTRL_DLC_MASK, 8);
  EXPECT_EQ(0, std::memcmp(r.data, m.data, 8));
  EXPECT_EQ(r.port, 0);
  uint64_t ptp = 0;
  ASSERT_EQ(VX_GetDataPtpTimestamp(b, &r, &ptp), VX_OK);
  EXPECT_LT(realtime_ns() - ptp, 5000000000ull);

  VXMessage conf;
  ASSERT_EQ(VX_Read(a, &conf, 2000, nullptr), VX_OK);
  EXPECT_TRUE(is_tx(conf));
  EXPECT_EQ(plain_id(conf), 0x18FF1234u);
  EXPECT_LE(conf.timestamp - written_at, 1000u);  // device clocks of both devices start together
  ASSERT_EQ(VX_Read(same_port, &conf, 2000, nullptr), VX_OK);
  EXPECT_TRUE(is_tx(conf));  // another application on the port sees the port's transmission
  EXPECT_EQ(VX_Read(other_bus, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
  EXPECT_EQ(VX_Read(a, &r, 0, nullptr), VX_ERR_QUEUE_EMPTY);

  // Without TX confirmations only the bus traffic arrives.
  VXHandle quiet = open_can("10356", 0, VX_CAN_MODE_NORMAL, 0, VX_OPEN_NO_TX_CONFIRM);
  ASSERT_EQ(VX_WriteCanMessage(quiet, &m), VX_OK);
  ASSERT_EQ(VX_Read(b, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(VX_Read(quiet, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
}

TEST_F(CanTest, FdFramesNeedAnFdChannel) {
  VXHandle fd = open_can("10356", 0);
  VXHandle classic = open_can("10357", 0, VX_CAN_MODE_CLASSIC);
  VXHandle listener = open_can("10357", 0, VX_CAN_MODE_LISTEN_ONLY);
  std::vector<uint8_t> payload(64, 0x5A);
  VXMessage big = can_frame(0x123, payload, false, true);
  big.control |= VX_CTRL_BRS;
  ASSERT_EQ(VX_WriteCanMessage(fd, &big), VX_OK);
  VXMessage r;
  ASSERT_EQ(VX_Read(listener, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(r.control & (VX_CTRL_EDL | VX_CTRL_BRS | VX_CTRL_DLC_MASK), VX_CTRL_EDL | VX_CTRL_BRS | 15);
  EXPECT_EQ(r.data[63], 0x5A);
  EXPECT_EQ(VX_Read(classic, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);

  EXPECT_EQ(VX_WriteCanMessage(classic, &big), VX_ERR_INVALID_OPERATION);
  VXMessage small = can_frame(0x124, {1});
  EXPECT_EQ(VX_WriteCanMessage(listener, &small), VX_ERR_INVALID_OPERATION);
  ASSERT_EQ(VX_WriteCanMessage(classic, &small), VX_OK);
  ASSERT_TRUE(read_until(fd, r, [](const VXMessage& x) { return !is_tx(x); }));
  EXPECT_EQ(plain_id(r), 0x124u);

  // Switching the mode in place takes effect at once.
  ASSERT_EQ(VX_SetCanMode(classic, VX_CAN_MODE_NORMAL), VX_OK);
  EXPECT_EQ(VX_WriteCanMessage(classic, &big), VX_OK);
  VXChannelConfig cfg;
  ASSERT_EQ(VX_GetChannelConfig(classic, &cfg), VX_OK);
  EXPECT_EQ(cfg.bus, VX_BUS_CAN);
  EXPECT_EQ(cfg.fd_enabled, 1);
  EXPECT_EQ(cfg.bitrate.nominal_kbps, 500);
}

TEST_F(CanTest, ReceiveFiltersAndBitrates) {
  VXHandle a = open_can("10356", 2);
  VXHandle b = open_can("10357", 2);
  VXRxFilter range{VX_RXFILTER_ACCEPT, 0, 0, 0x100, 0x1FF, 0, 0};
  ASSERT_EQ(VX_SetRxFilters(b, &range, 1), VX_OK);
  for (uint32_t id : {0x050u, 0x150u, 0x250u}) {
    VXMessage m = can_frame(id, {0});
    ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  }
  VXMessage r;
  ASSERT_EQ(VX_Read(b, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(plain_id(r), 0x150u);
  EXPECT_EQ(VX_Read(b, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
  uint32_t filtered = 0;
  ASSERT_EQ(VX_Control(b, VX_CONTROL_STATISTIC, VX_STAT_GROUP_CHANNEL, VX_STAT_FILTERED, &filtered, 4), VX_OK);
  EXPECT_EQ(filtered, 2u);
  VXRxFilter too_many[33] = {};
  EXPECT_EQ(VX_SetRxFilters(b, too_many, 33), VX_ERR_INVALID_PARAM_VALUE);
  ASSERT_EQ(VX_SetRxFilters(b, nullptr, 0), VX_OK);

  // Nodes with a different bitrate do not see each other until it matches.
  VXBitrate slow{250, 1000, 75, 75, {}};
  ASSERT_EQ(VX_SetCanBitrate(b, &slow), VX_OK);
  VXMessage m = can_frame(0x10, {1});
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  EXPECT_EQ(VX_Read(b, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
  VXBitrate normal{500, 2000, 75, 75, {}};
  ASSERT_EQ(VX_SetCanBitrate(b, &normal), VX_OK);
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  EXPECT_EQ(VX_Read(b, &r, 2000, nullptr), VX_OK);
  EXPECT_EQ(VX_SetCanTermination(b, VX_TERMINATION_OFF), VX_OK);
  VXChannelConfig cfg;
  ASSERT_EQ(VX_GetChannelConfig(b, &cfg), VX_OK);
  EXPECT_EQ(cfg.resistance, VX_TERMINATION_OFF);
}

TEST_F(CanTest, FullQueueReportsOverrunAndKeepsTheOldestRecords) {
  VXHandle a = open_can("10356", 3, VX_CAN_MODE_NORMAL, 0, VX_OPEN_NO_TX_CONFIRM);
  VXHandle b = open_can("10357", 3, VX_CAN_MODE_NORMAL, 8);
  for (uint32_t i = 0; i < 20; ++i) {
    VXMessage m = can_frame(0x100 + i, {uint8_t(i)});
    ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  }
  uint32_t pending = 0;
  for (int i = 0; i < 200 && pending < 8; ++i) {
    VX_Control(b, VX_CONTROL_STATISTIC, VX_STAT_GROUP_CHANNEL, VX_STAT_RX_PENDING, &pending, 4);
    sleep_ms(5);
  }
  uint32_t dropped = 0;
  for (int i = 0; i < 200 && dropped < 12; ++i) {
    VX_Control(b, VX_CONTROL_STATISTIC, VX_STAT_GROUP_CHANNEL, VX_STAT_RX_DROPPED, &dropped, 4);
    sleep_ms(5);
  }
  EXPECT_EQ(dropped, 12u);
  VXMessage r;
  EXPECT_EQ(VX_Read(b, &r, 0, nullptr), VX_ERR_QUEUE_OVERRUN);
  for (uint32_t i = 0; i < 8; ++i) {
    ASSERT_EQ(VX_Read(b, &r, 0, &pending), VX_OK);
    EXPECT_EQ(plain_id(r), 0x100 + i);
    EXPECT_EQ(pending, 7 - i);
  }
  EXPECT_EQ(VX_Read(b, &r, 0, nullptr), VX_ERR_QUEUE_EMPTY);
  VXMessage m = can_frame(0x1, {});
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  ASSERT_EQ(VX_ClearBuffer(b), VX_OK);
  sleep_ms(20);
  VX_ClearBuffer(b);
  EXPECT_EQ(VX_Read(b, &r, 0, nullptr), VX_ERR_QUEUE_EMPTY);
}

TEST_F(CanTest, DeviceClockStartsWhereConfiguredAndWraps) {
  set_env("VXSIM_CLOCK_START", std::to_string(0xFFFFFFFFu - 1000000));  // one second before the wrap
  VXHandle a = open_can("10356", 0);
  VXHandle b = open_can("10357", 0);
  VXMessage m = can_frame(0x1, {1});
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  VXMessage first, second;
  ASSERT_EQ(VX_Read(b, &first, 2000, nullptr), VX_OK);
  sleep_ms(static_cast<int>((0xFFFFFFFFu - first.timestamp) / 1000) + 50);
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  ASSERT_EQ(VX_Read(b, &second, 2000, nullptr), VX_OK);
  EXPECT_GT(first.timestamp, 0xFFF00000u);
  EXPECT_LT(second.timestamp, 0x00100000u);
  EXPECT_GE(second.timestamp - first.timestamp, 50000u);  // 32-bit difference stays right
  EXPECT_GT(second.ptp_ns, first.ptp_ns);
  VXHandle both[2] = {a, b};
  EXPECT_EQ(VX_SyncPtpTimes(both, 2), VX_OK);
}

TEST_F(CanTest, FramesFromAnotherProcessArriveCompleteAndInOrder) {
  VXHandle b = open_can("10357", 0);
  ASSERT_EQ(helper("send 10356 0 3000 123"), 0);
  VXMessage r;
  for (uint32_t i = 0; i < 3000; ++i) {
    ASSERT_EQ(VX_Read(b, &r, 2000, nullptr), VX_OK) << i;
    ASSERT_EQ(plain_id(r), 0x123u);
    uint32_t index;
    std::memcpy(&index, r.data, 4);
    ASSERT_EQ(index, i);
  }
  uint32_t dropped = 1;
  ASSERT_EQ(VX_Control(b, VX_CONTROL_STATISTIC, VX_STAT_GROUP_CHANNEL, VX_STAT_RX_DROPPED, &dropped, 4), VX_OK);
  EXPECT_EQ(dropped, 0u);
}

TEST_F(CanTest, WaitingAcrossSeveralChannels) {
  VXHandle a = open_can("10356", 6);
  VXHandle b = open_can("10357", 7);
  VXHandle c = open_can("10357", 6);
  VXNotifyHandle n[2];
  ASSERT_EQ(VX_GetNotification(b, &n[0]), VX_OK);
  ASSERT_EQ(VX_GetNotification(c, &n[1]), VX_OK);
  EXPECT_GE(n[0], 3);
  uint32_t index = 99;
  EXPECT_EQ(VX_WaitForNotificationsEx(n, 2, 30, &index), VX_ERR_QUEUE_EMPTY);
  VXMessage m = can_frame(0x42, {1, 2});
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  ASSERT_EQ(VX_WaitForNotificationsEx(n, 2, 2000, &index), VX_OK);
  EXPECT_EQ(index, 1u);
  // Still signalled while records wait, even when the reader stopped early.
  ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  VXMessage r;
  ASSERT_EQ(VX_Read(c, &r, 0, nullptr), VX_OK);
  EXPECT_EQ(VX_WaitForNotifications(&n[1], 1, 2000), VX_OK);
  ASSERT_EQ(VX_Read(c, &r, 1000, nullptr), VX_OK);
  EXPECT_EQ(VX_Read(c, &r, 0, nullptr), VX_ERR_QUEUE_EMPTY);
  EXPECT_EQ(VX_WaitForNotifications(&n[1], 1, 20), VX_ERR_QUEUE_EMPTY);
}

TEST_F(CanTest, LoopbackStaysInsideTheChannel) {
  VXHandle loop = open_can("10356", 1, VX_CAN_MODE_LOOPBACK);
  VXHandle peer = open_can("10357", 1);
  VXMessage m = can_frame(0x77, {7});
  ASSERT_EQ(VX_WriteCanMessage(loop, &m), VX_OK);
  VXMessage r;
  ASSERT_EQ(VX_Read(loop, &r, 2000, nullptr), VX_OK);
  EXPECT_TRUE(is_tx(r));
  EXPECT_EQ(VX_Read(peer, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
  ASSERT_EQ(VX_WriteCanMessage(peer, &m), VX_OK);
  EXPECT_EQ(VX_Read(loop, &r, 50, nullptr), VX_ERR_QUEUE_EMPTY);
}

TEST_F(CanTest, BadCallsGiveStatusCodes) {
  VXHandle a = open_can("10356", 0);
  VXMessage m = can_frame(0x1, {1});
  VXMessage r;
  EXPECT_EQ(VX_Read(nullptr, &r, 0, nullptr), VX_ERR_INVALID_CLIENT);
  EXPECT_EQ(VX_Read(reinterpret_cast<VXHandle>(0xDEADBEEFull), &r, 0, nullptr), VX_ERR_INVALID_CLIENT);
  EXPECT_EQ(VX_Read(a, nullptr, 0, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_WriteCanMessage(a, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXMessage bad_id = m;
  bad_id.id = 0x800;  // not an 11-bit identifier
  EXPECT_EQ(VX_WriteCanMessage(a, &bad_id), VX_ERR_INVALID_PARAM_VALUE);
  VXMessage bad_type = m;
  bad_type.header = VX_MSG_MARKER | 5;
  EXPECT_EQ(VX_Write(a, &bad_type, 0, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXLinMessage lin{};
  EXPECT_EQ(VX_WriteLinMessage(a, &lin, 0, 0, nullptr), VX_ERR_INVALID_OPERATION);
  EXPECT_EQ(VX_SetLinVoltage(a, 1), VX_ERR_INVALID_OPERATION);
  VXTxTask tasks[65] = {};
  EXPECT_EQ(VX_GetTxTasks(a, tasks, 65), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_SetTxTasks(a, tasks, 65), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_SetTxTasks(a, nullptr, 3), VX_ERR_INVALID_PARAM_VALUE);
  uint32_t v;
  EXPECT_EQ(VX_Control(a, 0x11, 0, 66, &v, 4), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_Control(a, VX_CONTROL_STATISTIC, 0, 66, &v, 2), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_Control(a, VX_CONTROL_STATISTIC, 0, 999, &v, 4), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_Enumerate(nullptr, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXNotifyHandle none = 0;
  EXPECT_EQ(VX_WaitForNotifications(&none, 0, 0), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_GetDataPtpTimestamp(a, &m, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXMessage blank{};
  uint64_t ns;
  EXPECT_EQ(VX_GetDataPtpTimestamp(a, &blank, &ns), VX_ERR_INVALID_DATA);

  VXBitrate b{500, 2000, 75, 75, {}};
  VXHandle h;
  EXPECT_EQ(VX_OpenEx(&h, &info("10356", 0), 7, 0, &b, 0, 0), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_OpenEx(&h, &info("10356", 0), 0, 0, nullptr, 0, 0), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_OpenEx(&h, &info("10356", 0), 0, 0, &b, 1u << 24, 0), VX_ERR_INVALID_PARAM_VALUE);
  VXChannelInfo ghost = info("10356", 0);
  std::memcpy(ghost.serial, "99999", 6);
  EXPECT_EQ(VX_OpenEx(&h, &ghost, 0, 0, &b, 0, 0), VX_ERR_INVALID_HARDWARE);
  ghost = info("10356", 0);
  ghost.port = 8;
  EXPECT_EQ(VX_OpenEx(&h, &ghost, 0, 0, &b, 0, 0), VX_ERR_INVALID_HARDWARE);

  ASSERT_EQ(VX_Close(a), VX_OK);
  EXPECT_EQ(VX_Close(a), VX_ERR_INVALID_CLIENT);
  EXPECT_EQ(VX_WriteCanMessage(a, &m), VX_ERR_INVALID_CLIENT);
  // A new channel in the freed slot does not revive the old handle.
  VXHandle again = open_can("10356", 0);
  EXPECT_NE(again, a);
  EXPECT_EQ(VX_Read(a, &r, 0, nullptr), VX_ERR_INVALID_CLIENT);

  ASSERT_EQ(VX_UnInit(), VX_OK);
  uint32_t count = 32;
  EXPECT_EQ(VX_Enumerate(nullptr, &count), VX_ERR_NOT_INITIALIZED);
  EXPECT_EQ(VX_Read(again, &r, 0, nullptr), VX_ERR_NOT_INITIALIZED);
  ASSERT_EQ(VX_Init(), VX_OK);
  EXPECT_EQ(VX_Read(again, &r, 0, nullptr), VX_ERR_INVALID_CLIENT);  // UnInit closed it
}

TEST_F(CanTest, OneChannelUsedFromSeveralThreads) {
  // The daemon's pattern: a receive worker per channel, a command thread that
  // writes and asks for statistics, and channels opened and closed meanwhile.
  VXHandle a = open_can("10356", 0, VX_CAN_MODE_NORMAL, 0, VX_OPEN_NO_TX_CONFIRM);
  VXHandle b = open_can("10357", 0);
  constexpr uint32_t kCount = 20000;
  uint32_t received = 0, out_of_order = 0;
  std::thread reader([&] {
    VXNotifyHandle n;
    VX_GetNotification(b, &n);
    uint32_t next = 0;
    while (received < kCount) {
      if (VX_WaitForNotifications(&n, 1, 2000) != VX_OK) break;
      VXMessage m;
      while (VX_Read(b, &m, 0, nullptr) == VX_OK) {
        uint32_t index;
        std::memcpy(&index, m.data, 4);
        out_of_order += index != next;
        next = index + 1;
        ++received;
      }
    }
  });
  std::thread control([&] {
    for (int i = 0; i < 50; ++i) {
      uint32_t v;
      VX_Control(b, VX_CONTROL_STATISTIC, VX_STAT_GROUP_CHANNEL, VX_STAT_RX_PENDING, &v, 4);
      VX_GetCanStatus(b, nullptr);
      VXBitrate rate{500, 2000, 75, 75, {}};
      VXHandle extra = nullptr;
      if (VX_OpenEx(&extra, &info("10357", 1), 0, 0, &rate, 64, 0) == VX_OK) VX_Close(extra);
    }
  });
  for (uint32_t i = 0; i < kCount; ++i) {
    VXMessage m = can_frame(0x55, {uint8_t(i), uint8_t(i >> 8), uint8_t(i >> 16), 0});
    ASSERT_EQ(VX_WriteCanMessage(a, &m), VX_OK);
  }
  control.join();
  reader.join();
  EXPECT_EQ(received, kCount);
  EXPECT_EQ(out_of_order, 0u);

  // Closing a channel while another thread waits in VX_Read ends that read.
  std::thread blocked([&] {
    VXMessage m;
    VXStatus st = VX_Read(b, &m, 300, nullptr);
    EXPECT_TRUE(st == VX_ERR_QUEUE_EMPTY || st == VX_ERR_INVALID_CLIENT) << st;
  });
  sleep_ms(50);
  EXPECT_EQ(VX_Close(b), VX_OK);
  blocked.join();
}
