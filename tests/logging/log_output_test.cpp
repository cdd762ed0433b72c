#include <chrono>
#include <thread>

#include "log_test.h"
#include "logging/log_output.h"
#include "message/frame.h"

using namespace logtest;

namespace {

const uint64_t kStart = 1700000000ULL * 1000000000ULL;

vxcli_log_record can_record(uint64_t ns, int logical, uint32_t id) {
  vxcli_log_record r = {};
  r.ns = ns;
  r.logical = logical;
  uint8_t data = (uint8_t)id;
  vxcli_can_message_init(&r.message, id, 0, 1, &data, 1);
  return r;
}

}  // namespace

// A frame that turns up late from another channel still lands in time order;
// what is held goes out once newer frames or a quiet spell come.
TEST(LogOutput, LateFramesOfAnotherChannelAreWrittenInTimeOrder) {
  for (bool blf : {true, false}) {
    SCOPED_TRACE(blf ? "blf" : "asc");
    TempDir dir;
    std::string path = dir.file(blf ? "o.blf" : "o.asc");
    char message[256];
    vxcli_asc_channel_label labels[2] = {{1, "10357", 0}, {2, "10357", 1}};
    vxcli_log_output* out = vxcli_log_output_open(path.c_str(), blf, kStart, labels, 2, message, sizeof message);
    ASSERT_NE(out, nullptr) << message;
    vxcli_log_record first[] = {can_record(kStart + 2000000, 1, 0x102), can_record(kStart + 1000000, 1, 0x101)};
    EXPECT_EQ(vxcli_log_output_write(out, first, 2), 0);  // both held: nothing newer yet
    vxcli_log_record late = can_record(kStart + 1500000, 2, 0x201);
    EXPECT_EQ(vxcli_log_output_write(out, &late, 1), 0);
    // 150 ms later on the bus: the first three are due, the newest is held.
    vxcli_log_record later = can_record(kStart + 152000000, 2, 0x202);
    EXPECT_EQ(vxcli_log_output_write(out, &later, 1), 3);
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    EXPECT_EQ(vxcli_log_output_write(out, nullptr, 0), 1);  // quiet: the rest follows
    ASSERT_EQ(vxcli_log_output_close(out), 0);
    auto frames = read_frames(path);
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].id, 0x101u);
    EXPECT_EQ(frames[1].id, 0x201u);
    EXPECT_EQ(frames[1].channel, 2);
    EXPECT_EQ(frames[2].id, 0x102u);
    EXPECT_EQ(frames[3].id, 0x202u);
    EXPECT_NEAR(frames[3].time - frames[0].time, 0.151, 1e-6);
  }
}

// Times from a device clock (microseconds since power-up) keep their spacing
// and land at the wall-clock time they were logged, not before the file start.
TEST(LogOutput, DeviceClockTimesMoveOntoTheWallClock) {
  TempDir dir;
  std::string path = dir.file("d.blf");
  uint64_t start = (uint64_t)std::chrono::duration_cast<std::chrono::nanoseconds>(
                       std::chrono::system_clock::now().time_since_epoch())
                       .count();
  char message[256];
  vxcli_log_output* out = vxcli_log_output_open(path.c_str(), true, start, nullptr, 0, message, sizeof message);
  ASSERT_NE(out, nullptr) << message;
  vxcli_log_record r[] = {can_record(5000000000ULL, 1, 1), can_record(5250000000ULL, 1, 2)};
  long written = vxcli_log_output_write(out, r, 2);  // the older one is already due
  EXPECT_EQ(written + vxcli_log_output_write_all(out), 2);
  ASSERT_EQ(vxcli_log_output_close(out), 0);
  auto frames = read_frames(path);
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_NEAR(frames[1].time - frames[0].time, 0.25, 1e-9);
  EXPECT_LT(frames[0].time_ns, 5000000000ULL);  // relative to the file start: within seconds
}
