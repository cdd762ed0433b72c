#include "sim_fixture.h"

#include <dlfcn.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <sstream>

#include "../../vxsim/common/frame.h"

extern char** environ;

namespace simtest {

namespace {

const VXChannelInfo* find_info(const std::vector<VXChannelInfo>& infos, const std::string& serial, unsigned port) {
  for (auto& i : infos)
    if (serial == reinterpret_cast<const char*>(i.serial) && i.port == port) return &i;
  return nullptr;
}

VXHandle open_from(const VXChannelInfo& info, uint32_t mode, uint16_t rate) {
  VXBitrate b{};
  b.nominal_kbps = rate;
  b.data_kbps = info.capability & VX_CAP_LIN ? 0 : 2000;
  VXHandle h = nullptr;
  return VX_OpenEx(&h, &info, mode, 0, &b, 0, 0) == VX_OK ? h : nullptr;
}

// Helper roles, run in a separate process started by SimTest::helper. They
// use only the public interface, as any application would.
int run_role(const std::string& role) {
  std::istringstream in(role);
  std::string what, serial;
  unsigned port = 0;
  in >> what >> serial >> port;
  if (VX_Init() != VX_OK) return 2;
  std::vector<VXChannelInfo> infos(64);
  uint32_t n = 64;
  if (VX_Enumerate(infos.data(), &n) != VX_OK) return 3;
  infos.resize(n);
  const VXChannelInfo* info = find_info(infos, serial, port);
  if (!info) return 4;
  if (what == "send") {
    unsigned count = 0, id = 0;
    in >> count >> std::hex >> id;
    VXHandle h = open_from(*info, VX_CAN_MODE_NORMAL, 500);
    if (!h) return 5;
    for (unsigned i = 0; i < count; ++i) {
      VXMessage m = can_frame(id, {uint8_t(i), uint8_t(i >> 8), uint8_t(i >> 16), uint8_t(i >> 24)});
      if (VX_WriteCanMessage(h, &m) != VX_OK) return 6;
    }
    VX_Close(h);
    VX_UnInit();
    return 0;
  }
  if (what == "task") {
    // Sets a table and leaves without closing: the device keeps it.
    unsigned id = 0, cycle = 0;
    in >> std::hex >> id >> std::dec >> cycle;
    VXHandle h = open_from(*info, VX_CAN_MODE_NORMAL, 500);
    if (!h) return 5;
    VXTxTask t[2] = {};
    t[0].type = VX_TXTASK_FIXED;
    t[0].id = id;
    t[0].length = 2;
    t[0].data[0] = 0xAB;
    t[0].cycle = cycle;
    t[1].type = VX_TXTASK_INCDATA;
    t[1].id = id + 1;
    t[1].length = 8;
    t[1].cycle = cycle;
    t[1].inc_startbit = 8;
    t[1].inc_nbits = 8;
    t[1].inc_min = 5;
    t[1].inc_max = 7;
    if (VX_SetTxTasks(h, t, 2) != VX_OK) return 6;
    if (VX_Activate(h) != VX_OK) return 7;
    _exit(0);
  }
  if (what == "crash") {
    // Dies with channels open and frames queued.
    VXHandle a = open_from(*info, VX_CAN_MODE_NORMAL, 500);
    VXHandle b = open_from(*info, VX_CAN_MODE_LISTEN_ONLY, 500);
    if (!a || !b) return 5;
    VXMessage m = can_frame(0x7AB, {1, 2, 3});
    VX_WriteCanMessage(a, &m);
    raise(SIGKILL);
  }
  return 9;
}

// Runs before gtest when the process was started as a helper.
const int g_role_result = [] {
  const char* role = getenv("VXSIM_TEST_ROLE");
  if (role && *role) _exit(run_role(role));
  return 0;
}();

}  // namespace

VXMessage can_frame(uint32_t id, std::vector<uint8_t> data, bool ext, bool fd) {
  VXMessage m;
  uint8_t flags = (ext ? VX_FRAME_IDE : 0) | (fd ? VX_FRAME_FDF : 0);
  vxsim::make_can_record(m, id, flags, data.data(), static_cast<unsigned>(data.size()));
  return m;
}

uint32_t plain_id(const VXMessage& m) { return vxsim::can_plain_id(m); }
bool is_tx(const VXMessage& m) { return m.header & VX_MSG_TX; }

void SimTest::SetUp() {
  (void)g_role_result;
  // The test must talk to the real library, not to a forwarder of the same name.
  Dl_info where{};
  ASSERT_NE(dladdr(reinterpret_cast<void*>(&VX_Init), &where), 0);
  ASSERT_NE(std::strstr(where.dli_fname, "libvxapi64.so"), nullptr) << where.dli_fname;
  setenv("VXSIM_DIR", sandbox_.env()["VXSIM_DIR"].c_str(), 1);
  for (const char* v : {"VXSIM_CLOCK_START", "VXSIM_TOPOLOGY", "VXSIM_IDLE_MS"}) unsetenv(v);
  ASSERT_EQ(VX_Init(), VX_OK);
}

void SimTest::TearDown() {
  VX_UnInit();
  for (const char* v : {"VXSIM_CLOCK_START", "VXSIM_TOPOLOGY", "VXSIM_IDLE_MS"}) unsetenv(v);
}

void SimTest::set_env(const std::string& name, const std::string& value) {
  setenv(name.c_str(), value.c_str(), 1);
  sandbox_.env()[name] = value;
}

const VXChannelInfo& SimTest::info(const char* serial, unsigned port) {
  if (infos_.empty()) {
    infos_.resize(64);
    uint32_t n = 64;
    EXPECT_EQ(VX_Enumerate(infos_.data(), &n), VX_OK);
    infos_.resize(n);
  }
  const VXChannelInfo* i = find_info(infos_, serial, port);
  if (!i) {
    ADD_FAILURE() << "no channel " << serial << "/" << port;
    static VXChannelInfo none{};
    return none;
  }
  return *i;
}

VXHandle SimTest::open_can(const char* serial, unsigned port, uint32_t mode, uint32_t rx_queue, uint32_t flags,
                           uint16_t kbps) {
  VXBitrate b{};
  b.nominal_kbps = kbps;
  b.data_kbps = 2000;
  VXHandle h = nullptr;
  VXStatus st = VX_OpenEx(&h, &info(serial, port), mode, 120, &b, rx_queue, flags);
  EXPECT_EQ(st, VX_OK) << serial << "/" << port;
  return h;
}

VXHandle SimTest::open_lin(const char* serial, unsigned port, uint32_t mode, uint16_t bps) {
  VXBitrate b{};
  b.nominal_kbps = bps;
  VXHandle h = nullptr;
  VXStatus st = VX_OpenEx(&h, &info(serial, port), mode, 0, &b, 0, 0);
  EXPECT_EQ(st, VX_OK) << serial << "/" << port;
  return h;
}

std::vector<VXMessage> SimTest::drain(VXHandle h) {
  std::vector<VXMessage> out;
  VXMessage m;
  VXStatus st;
  while ((st = VX_Read(h, &m, 0, nullptr)) == VX_OK || st == VX_ERR_QUEUE_OVERRUN)
    if (st == VX_OK) out.push_back(m);
  return out;
}

int SimTest::helper(const std::string& role) {
  std::vector<std::string> env;
  for (char** e = environ; *e; ++e)
    if (std::strncmp(*e, "VXSIM_TEST_ROLE=", 16) != 0) env.push_back(*e);
  env.push_back("VXSIM_TEST_ROLE=" + role);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  char self[] = "/proc/self/exe";
  char* argv[] = {self, nullptr};
  pid_t pid;
  if (posix_spawn(&pid, self, nullptr, nullptr, argv, envp.data()) != 0) return -1;
  int status = 0;
  waitpid(pid, &status, 0);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return WEXITSTATUS(status);
}

}  // namespace simtest
