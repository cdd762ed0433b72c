// LIN master/slave exchanges on the virtual analyzer.
#include <cstring>

#include "../../vxsim/common/frame.h"
#include "sim_fixture.h"

using namespace simtest;

namespace {

VXLinMessage header(uint8_t id, unsigned length, bool enhanced = true) {
  VXLinMessage m{};
  m.id = id;
  m.control = static_cast<uint8_t>(length | (enhanced ? VX_LIN_CTRL_ENHANCED : 0));
  return m;
}

VXLinMessage response(uint8_t id, std::vector<uint8_t> data, bool enhanced = true) {
  VXLinMessage m = header(id, static_cast<unsigned>(data.size()), enhanced);
  m.control |= VX_LIN_CTRL_MASTER_DATA;
  std::memcpy(m.data, data.data(), data.size());
  m.checksum = vxsim::lin_checksum(m.data, static_cast<unsigned>(data.size()), id,
                                   enhanced ? VX_LIN_CHECKSUM_ENHANCED : VX_LIN_CHECKSUM_CLASSIC);
  return m;
}

bool is_lin(const VXMessage& m) { return (m.header & VX_MSG_TYPE_MASK) == VX_MSG_TYPE_LIN; }

}  // namespace

class LinTest : public SimTest {
 protected:
  // The completed frame as the master sees it.
  VXMessage transfer(VXHandle master, const VXLinMessage& req) {
    EXPECT_EQ(VX_WriteLinMessage(master, &req, 0, 100, nullptr), VX_OK);
    VXMessage r{};
    bool got = read_until(master, r, [&](const VXMessage& m) { return is_lin(m) && is_tx(m) && m.id == req.id; });
    EXPECT_TRUE(got) << "no completion for 0x" << std::hex << int(req.id);
    return r;
  }
};

TEST_F(LinTest, MasterReadIsAnsweredBySlaveOnAnotherDevice) {
  // Three devices on one LIN bus, so that the listener is neither master nor responder.
  set_env("VXSIM_TOPOLOGY", sandbox_.write_file("three.yaml", R"(devices:
  - {serial: "10356", ports: [{capability: CANFD|CAN, bus: 0}, {capability: LIN, bus: 4}]}
  - {serial: "10357", ports: [{capability: CANFD|CAN, bus: 0}, {capability: LIN, bus: 4}]}
  - {serial: "20001", name: Spy, ports: [{capability: LIN|VIRT, bus: 4}]}
)"));
  VXHandle master = open_lin("10356", 1, VX_LIN_MODE_MASTER);
  VXHandle slave = open_lin("10357", 1, VX_LIN_MODE_SLAVE);
  VXHandle listener = open_lin("20001", 0, VX_LIN_MODE_LISTEN_ONLY);
  VXChannelInfo spy;
  ASSERT_EQ(VX_GetChannelInfo(listener, &spy), VX_OK);
  EXPECT_STREQ(spy.name, "Spy 20001 Port 0");
  VXLinMessage resp = response(0x10, {0x4A, 0x55, 0x93, 0xE5});
  ASSERT_EQ(VX_WriteLinMessage(slave, &resp, 0, 0, nullptr), VX_OK);

  VXMessage r = transfer(master, header(0x10, 4));
  EXPECT_EQ(r.header, VX_MSG_HEADER_LIN | VX_MSG_TX);
  EXPECT_EQ(r.control & VX_LIN_CTRL_LEN_MASK, 4);
  EXPECT_EQ(r.lin_status, 0);
  EXPECT_EQ(r.lin_checksum, 0x96);
  EXPECT_EQ(0, std::memcmp(r.data, resp.data, 4));

  VXMessage seen;
  ASSERT_TRUE(read_until(listener, seen, is_lin));
  EXPECT_FALSE(is_tx(seen));
  EXPECT_EQ(seen.lin_status, 0);
  EXPECT_EQ(seen.lin_checksum, 0x96);
  ASSERT_TRUE(read_until(slave, seen, is_lin));
  EXPECT_TRUE(is_tx(seen));  // the slave transmitted the response

  // A listener that expects classic checksums flags the enhanced one.
  VXLinProtocol classic{0x22, VX_LIN_CHECKSUM_CLASSIC, {}};
  ASSERT_EQ(VX_SetLinProtocol(listener, &classic), VX_OK);
  r = transfer(master, header(0x10, 4));
  ASSERT_TRUE(read_until(listener, seen, is_lin));
  EXPECT_EQ(seen.lin_status, VX_LIN_STATUS_CHECKSUM);
  // So does a master that asks for the classic model.
  r = transfer(master, header(0x10, 4, false));
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_CHECKSUM);
}

TEST_F(LinTest, NoResponseSyncBreakAndMasterWrite) {
  VXHandle master = open_lin("10356", 5, VX_LIN_MODE_MASTER);
  VXHandle slave = open_lin("10357", 5, VX_LIN_MODE_SLAVE);
  VXMessage r = transfer(master, header(0x11, 8));
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_NO_RESPONSE);
  EXPECT_EQ(r.control & VX_LIN_CTRL_LEN_MASK, 0);

  VXLinMessage brk = header(0x12, 0);
  brk.status = VX_LIN_TX_SYNC_BREAK;
  r = transfer(master, brk);
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_HEADER_ONLY);
  EXPECT_EQ(r.control & VX_LIN_CTRL_LEN_MASK, 0);

  // A sync-break for a frame a slave answers still carries data.
  VXLinMessage resp = response(0x12, {1, 2});
  ASSERT_EQ(VX_WriteLinMessage(slave, &resp, 0, 0, nullptr), VX_OK);
  r = transfer(master, brk);
  EXPECT_EQ(r.control & VX_LIN_CTRL_LEN_MASK, 2);

  // Master-write: the slave receives the master's data.
  VXMessage seen;
  while (VX_Read(slave, &seen, 0, nullptr) == VX_OK) {
  }
  VXLinMessage w = response(0x20, {0xDE, 0xAD, 0xBE, 0xEF});
  r = transfer(master, w);
  EXPECT_EQ(r.lin_status, 0);
  EXPECT_EQ(r.lin_checksum, w.checksum);
  ASSERT_TRUE(read_until(slave, seen, is_lin));
  EXPECT_FALSE(is_tx(seen));
  EXPECT_EQ(seen.id, 0x20u);
  EXPECT_EQ(seen.data[3], 0xEF);
  EXPECT_EQ(seen.lin_status, 0);

  // Removing the response: a slave write without data clears it.
  VXLinMessage clear = header(0x12, 0);
  ASSERT_EQ(VX_WriteLinMessage(slave, &clear, 0, 0, nullptr), VX_OK);
  VXLinMessage read12 = header(0x12, 2);
  r = transfer(master, read12);
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_NO_RESPONSE);
}

TEST_F(LinTest, ResponseTablesOutliveTheirChannelAndHeaderTasksRunOnTheMaster) {
  VXHandle slave = open_lin("10357", 4, VX_LIN_MODE_SLAVE);
  VXLinResponseTask rt[2] = {};
  rt[0].enabled = 1;
  rt[0].kind = VX_TXTASK_KIND_LIN_RESPONSE;
  rt[0].flags = VX_LINTASK_ACTIVE | VX_LINTASK_ENHANCED;
  rt[0].length = 2;
  rt[0].repeat = 1;
  rt[0].id = 0x30;
  rt[0].data[0] = 0x11;
  rt[0].data[1] = 0x22;
  rt[1] = rt[0];
  rt[1].id = 0x31;
  rt[1].flags |= VX_LINTASK_OWN_CHECKSUM;
  rt[1].checksum = 0x00;  // deliberately wrong
  VXTxTask tasks[2];
  std::memcpy(tasks, rt, sizeof rt);
  ASSERT_EQ(VX_SetTxTasks(slave, tasks, 2), VX_OK);
  ASSERT_EQ(VX_Close(slave), VX_OK);

  VXHandle master = open_lin("10356", 4, VX_LIN_MODE_MASTER);
  VXMessage r = transfer(master, header(0x30, 2));
  EXPECT_EQ(r.lin_status, 0);
  EXPECT_EQ(r.data[1], 0x22);
  r = transfer(master, header(0x31, 2));
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_CHECKSUM);
  EXPECT_EQ(r.lin_checksum, 0x00);

  // A schedule entry as a header task: the master polls 0x30 every 10 ms.
  VXTxTask poll{};
  poll.type = VX_TXTASK_FIXED;
  poll.kind = VX_TXTASK_KIND_LIN_HEADER;
  poll.flags = VX_LINTASK_ENHANCED;
  poll.lin_id = 0x30;
  poll.length = 2;
  poll.cycle = 10;
  ASSERT_EQ(VX_SetTxTasks(master, &poll, 1), VX_OK);
  int seen = 0;
  VXMessage m;
  while (seen < 4 && read_until(master, m, [](const VXMessage& x) { return x.id == 0x30; }, 1000)) {
    EXPECT_EQ(m.lin_status, 0);
    EXPECT_EQ(m.data[0], 0x11);
    ++seen;
  }
  EXPECT_EQ(seen, 4);
  ASSERT_EQ(VX_SetTxTasks(master, nullptr, 0), VX_OK);
}

TEST_F(LinTest, ModesBitratesAndLoopback) {
  VXHandle listener = open_lin("10356", 5, VX_LIN_MODE_LISTEN_ONLY);
  VXLinMessage h = header(0x01, 1);
  EXPECT_EQ(VX_WriteLinMessage(listener, &h, 0, 0, nullptr), VX_ERR_INVALID_OPERATION);
  EXPECT_EQ(VX_WriteLinMessage(listener, &h, 1, 0, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXLinMessage bad = header(0x40, 1);
  VXHandle master = open_lin("10357", 5, VX_LIN_MODE_MASTER);
  EXPECT_EQ(VX_WriteLinMessage(master, &bad, 0, 0, nullptr), VX_ERR_INVALID_PARAM_VALUE);
  VXMessage can{};
  EXPECT_EQ(VX_WriteCanMessage(master, &can), VX_ERR_INVALID_OPERATION);
  VXLinProtocol wrong{0x30, VX_LIN_CHECKSUM_CLASSIC, {}};
  EXPECT_EQ(VX_SetLinProtocol(master, &wrong), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_SetLinVoltage(master, 2), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_SetLinVoltage(master, 0), VX_OK);
  EXPECT_EQ(VX_GetCanStatus(master, nullptr), VX_ERR_INVALID_OPERATION);

  VXBitrate automatic{0, 0, 0, 0, {}};
  VXHandle x;
  EXPECT_EQ(VX_OpenEx(&x, &info("10356", 5), VX_LIN_MODE_MASTER, 0, &automatic, 0, 0), VX_ERR_INVALID_PARAM_VALUE);
  VXBitrate too_fast{20001, 0, 0, 0, {}};
  EXPECT_EQ(VX_OpenEx(&x, &info("10356", 5), VX_LIN_MODE_SLAVE, 0, &too_fast, 0, 0), VX_ERR_INVALID_PARAM_VALUE);
  EXPECT_EQ(VX_OpenEx(&x, &info("10356", 5), 4, 0, &automatic, 0, 0), VX_ERR_INVALID_PARAM_VALUE);

  // A slave at another bitrate does not answer; one at automatic bitrate does.
  VXHandle slow = open_lin("10356", 5, VX_LIN_MODE_SLAVE, 9600);
  VXLinMessage resp = response(0x05, {9});
  ASSERT_EQ(VX_WriteLinMessage(slow, &resp, 0, 0, nullptr), VX_OK);
  VXMessage r = transfer(master, header(0x05, 1));
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_NO_RESPONSE);
  ASSERT_EQ(VX_Close(slow), VX_OK);
  VXHandle autobaud = open_lin("10356", 5, VX_LIN_MODE_SLAVE, 0);
  r = transfer(master, header(0x05, 1));
  EXPECT_EQ(r.data[0], 9);  // the port's table survived the reopen
  (void)autobaud;

  // Internal loopback answers from its own port only and stays off the bus.
  VXMessage drained;
  while (VX_Read(listener, &drained, 0, nullptr) == VX_OK) {
  }
  VXHandle loop = open_lin("10357", 5, VX_LIN_MODE_LOOPBACK);
  r = transfer(loop, header(0x05, 1));
  EXPECT_EQ(r.lin_status, VX_LIN_STATUS_NO_RESPONSE);  // 10356/5's table is out of reach
  EXPECT_EQ(VX_Read(listener, &drained, 50, nullptr), VX_ERR_QUEUE_EMPTY);
}
