#include <sys/stat.h>

#include <array>
#include <chrono>
#include <thread>

#include "log_test.h"
#include "logging/blf_writer.h"

using namespace logtest;

namespace {

const uint64_t kNov2023 = 1700000000ULL * 1000000000ULL;  // Tue 2023-11-14 22:13:20 UTC
using Calendar = std::array<uint16_t, 8>;

Calendar calendar(uint64_t ns) {
  Calendar out;
  vxcli_blf_calendar_time(ns, out.data());
  return out;
}

Calendar header_time(const Bytes& f, size_t at) {
  Calendar out;
  for (size_t i = 0; i < 8; i++) out[i] = (uint16_t)get(f, at + 2 * i, 2);
  return out;
}

// Object types per container of a file this writer produced; checks that the
// file is whole containers named by its header.
std::vector<std::vector<uint32_t>> layout(const Bytes& f) {
  std::vector<std::vector<uint32_t>> out;
  EXPECT_EQ(get(f, 16, 8), f.size());
  size_t at = 144, objects = 0;
  while (at + 32 <= f.size()) {
    uint32_t size = (uint32_t)get(f, at + 8, 4);
    EXPECT_EQ(get(f, at + 12, 4), 10u);
    EXPECT_LE(size - 32, 2560u);
    out.emplace_back();
    for (size_t inner = at + 32; inner < at + size; inner += (get(f, inner + 8, 4) + 3) & ~3ull)
      out.back().push_back((uint32_t)get(f, inner + 12, 4));
    objects += out.back().size();
    at += size;
  }
  EXPECT_EQ(at, f.size());
  EXPECT_EQ(get(f, 32, 4), objects);
  return out;
}

void can(BLFWriter* w, uint64_t ts, uint32_t id = 0x123) {
  uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  on_can_message_received(w, ts, id, data, 8, 0, false, false, false, false, true, false, false);
}

}  // namespace

TEST(BlfWriter, CalendarTimesAndEmptyFile) {
  EXPECT_EQ(calendar(kNov2023 + 123456789), (Calendar{2023, 11, 2, 14, 22, 13, 20, 123}));
  EXPECT_EQ(calendar(951782400ULL * 1000000000), (Calendar{2000, 2, 2, 29, 0, 0, 0, 0}));
  EXPECT_EQ(calendar(4107542400ULL * 1000000000), (Calendar{2100, 3, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(calendar(1735516799999999999ULL), (Calendar{2024, 12, 7, 29, 23, 59, 59, 999}));
  EXPECT_EQ(calendar(631151999999999999ULL), Calendar{});  // before 1990
  EXPECT_EQ(calendar(631152000000000000ULL), (Calendar{1990, 1, 1, 1, 0, 0, 0, 0}));

  TempDir dir;
  std::string path = dir.file("empty.blf");
  for (uint64_t start : {uint64_t(0), kNov2023}) {
    destroy_blf_writer(create_blf_writer_default(path.c_str(), start));
    Bytes f = read(path);
    ASSERT_EQ(f.size(), 144u);
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 16), (Bytes{'L', 'O', 'G', 'G', 144, 0, 0, 0, 5, 0, 0, 0, 2, 5, 8, 1}));
    EXPECT_EQ(get(f, 24, 8), 144u);
    EXPECT_EQ(header_time(f, 40), calendar(start));
    EXPECT_EQ(header_time(f, 56), Calendar{});
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
  }
  EXPECT_EQ(create_blf_writer_default("/nonexistent-dir/x.blf", 0), nullptr);
  EXPECT_EQ(vxcli_blf_open("", 0), nullptr);
  EXPECT_EQ(vxcli_blf_close(nullptr), -1);
}

TEST(BlfWriter, PayloadsFollowTheFrameKind) {
  TempDir dir;
  std::string path = dir.file("layout.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), kNov2023);
  uint8_t data[64];
  for (int i = 0; i < 64; i++) data[i] = (uint8_t)(0xA0 + i);
  on_can_message_received(w, kNov2023 + 1000, 0x123, data, 12, 1, false, false, false, false, true, false, false);
  on_can_message_received(w, kNov2023 + 2000, 0x7FF, data, 8, 0, false, true, false, false, false, false, false);
  on_can_message_received(w, kNov2023 + 3000, 0x55, data, 10, 2, false, false, true, false, true, false, false);
  on_lin_message_received_ex(w, kNov2023 + 4000, 0x3C, data, 9, 3, 0x5A, 1, 33, 44, 1, true);
  on_lin_message_received(w, kNov2023 + 5000, 0x10, data, 2, 0, 0x77, 0);
  on_ethernetex_frame_received(w, kNov2023 + 6000, data, 40, 1);
  destroy_blf_writer(w);
  Bytes f = read(path);
  EXPECT_EQ(layout(f), (std::vector<std::vector<uint32_t>>{{1, 1, 73, 42, 11, 11, 120}}));
  const size_t p = 144 + 32 + 32;  // first payload
  EXPECT_EQ(get(f, p, 2), 2u);     // channel index 1
  EXPECT_EQ(f[p + 3], 8);          // classic DLC 12 recorded as 8
  EXPECT_EQ(get(f, p - 8, 8), 1000u);
  EXPECT_EQ(f[p + 48 + 2], 0x81);  // remote and transmitted
  EXPECT_EQ(Bytes(f.begin() + p + 56, f.begin() + p + 64), Bytes(8, 0));
  const size_t e = p + 96;         // error frame: DLC kept, 255, 1
  EXPECT_EQ(Bytes(f.begin() + e + 10, f.begin() + e + 13), (Bytes{10, 255, 1}));
  EXPECT_EQ(Bytes(f.begin() + e + 32 + 32, f.begin() + e + 40 + 32), (Bytes{4, 0, 0x3C, 1, 0, 0, 0, 0}));
  const size_t l = e + 64 + 40;    // LIN: DLC 8, bit times, checksum, direction
  EXPECT_EQ(f[l + 3], 8);
  EXPECT_EQ(Bytes(f.begin() + l + 14, f.begin() + l + 19), (Bytes{33, 44, 0x5A, 0, 1}));
  EXPECT_EQ(get(f, l + 56 + 56, 2), 104u);  // Ethernet: frame length + 64
}

TEST(BlfWriter, ContainerFillAndSizeProjection) {
  TempDir dir;
  std::string path = dir.file("fit.blf");
  uint8_t eth[1600] = {};
  for (int extra : {0, 1}) {
    BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
    for (int i = 0; i < 52; i++) can(w, kNov2023 + i);  // 52 x 48 = 2496 bytes
    // 64 bytes left: an object of 64 fits exactly, one of 65 (+3) does not.
    on_ethernetex_frame_received(w, kNov2023 + 100, eth, (uint16_t)extra, 0);
    destroy_blf_writer(w);
    EXPECT_EQ(layout(read(path)).size(), extra ? 2u : 1u);
  }
  BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
  EXPECT_EQ(blf_writer_current_file_size(w), 144u);
  for (int i = 0; i < 150; i++) {
    uint64_t projected = blf_writer_projected_file_size(w, 16);
    can(w, kNov2023 + i);
    ASSERT_EQ(blf_writer_current_file_size(w), projected) << i;
  }
  uint64_t projected = blf_writer_projected_file_size(w, 1632);  // does not fit: new container
  on_ethernetex_frame_received(w, kNov2023 + 500, eth, 1600, 0);
  EXPECT_EQ(blf_writer_current_file_size(w), projected);
  destroy_blf_writer(w);
  EXPECT_EQ(read(path).size(), projected);
  EXPECT_EQ(blf_writer_current_file_size(nullptr), 0u);
}

TEST(BlfWriter, FileOnDiskIsWholeContainersNamedByItsHeader) {
  TempDir dir;
  std::string path = dir.file("crash.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
  for (int i = 0; i < 60; i++) can(w, kNov2023 + (uint64_t)i * 1000000, 0x100 + i);
  // Not closed, as a killed process leaves it: the first container is there.
  Bytes f = read(path);
  EXPECT_EQ(layout(f).size(), 1u);
  EXPECT_EQ(header_time(f, 40), calendar(kNov2023));  // start from the first object
  EXPECT_EQ(header_time(f, 56), calendar(kNov2023 + 53000000));
  auto frames = read_frames(path);
  ASSERT_EQ(frames.size(), 53u);
  EXPECT_EQ(frames[52].time_ns, 52000000u);
  // Later containers go out in batches, at the latest a tenth of a second on.
  for (int i = 0; i < 20000; i++) can(w, kNov2023 + (uint64_t)i * 1000);
  layout(read(path));
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  for (int i = 0; i < 60; i++) can(w, kNov2023 + 30000000000ULL + (uint64_t)i);
  EXPECT_EQ(read(path).size(), blf_writer_current_file_size(w) - (32 + w->used));
  // A logger's sync writes what is batched, its header counting only that;
  // closing the open container as well puts every object on disk.
  for (int i = 0; i < 100; i++) can(w, kNov2023 + 31000000000ULL + (uint64_t)i);
  blf_writer_sync(w, false);
  EXPECT_GT(w->used, 0u);
  layout(read(path));
  blf_writer_sync(w, true);
  EXPECT_EQ(w->used, 0u);
  layout(read(path));
  EXPECT_EQ(get(read(path), 32, 4), 20220u);
  destroy_blf_writer(w);
  layout(read(path));
  EXPECT_EQ(get(read(path), 32, 4), 20220u);
}
