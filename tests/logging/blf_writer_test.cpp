#include <gtest/gtest.h>

#include <sys/stat.h>

#include <array>
#include <chrono>
#include <thread>
#include <vector>

#include "blf_build.h"
#include "logging/blf_reader.h"
#include "logging/blf_writer.h"

using namespace blftest;

namespace {

const uint64_t kSecond = 1000000000ULL;
const uint64_t kNov2023 = 1700000000ULL * kSecond;  // Tue 2023-11-14 22:13:20 UTC

std::array<uint16_t, 8> calendar(uint64_t ns) {
  std::array<uint16_t, 8> out;
  vxcli_blf_calendar_time(ns, out.data());
  return out;
}

std::array<uint16_t, 8> header_time(const Bytes& file, size_t at) {
  std::array<uint16_t, 8> out;
  for (int i = 0; i < 8; i++) out[i] = get16(file, at + 2 * i);
  return out;
}

struct Container {
  size_t offset;
  uint32_t size;
  std::vector<uint32_t> types;
};

// Walks the top level of a file this writer produced.
std::vector<Container> containers(const Bytes& f) {
  std::vector<Container> out;
  size_t at = 144;
  while (at + 32 <= f.size()) {
    Container c{at, get32(f, at + 8), {}};
    EXPECT_EQ(get32(f, at + 12), 10u);
    EXPECT_EQ(get16(f, at + 16), 0u);                 // stored
    EXPECT_EQ(get32(f, at + 24), c.size - 32);         // uncompressed size
    size_t inner = at + 32;
    while (inner < at + c.size) {
      c.types.push_back(get32(f, inner + 12));
      uint32_t size = get32(f, inner + 8);
      inner += size + (-size & 3u);
    }
    EXPECT_EQ(inner, at + c.size);
    out.push_back(c);
    at += c.size + (-c.size & 3u);
  }
  EXPECT_EQ(at, f.size());
  return out;
}

void can(BLFWriter* w, uint64_t ts, uint32_t id = 0x123) {
  uint8_t data[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  on_can_message_received(w, ts, id, data, 8, 0, false, false, false, false, true, false, false);
}

}  // namespace

TEST(BlfCalendar, UtcFieldsWithMondayAsOne) {
  EXPECT_EQ(calendar(kNov2023 + 123456789), (std::array<uint16_t, 8>{2023, 11, 2, 14, 22, 13, 20, 123}));
  EXPECT_EQ(calendar(951782400ULL * kSecond), (std::array<uint16_t, 8>{2000, 2, 2, 29, 0, 0, 0, 0}));
  EXPECT_EQ(calendar(4107542400ULL * kSecond), (std::array<uint16_t, 8>{2100, 3, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(calendar(1735516799ULL * kSecond + 999999999),
            (std::array<uint16_t, 8>{2024, 12, 7, 29, 23, 59, 59, 999}));
  // Before 1990 the fields stay zero; the first nanosecond of 1990 is dated.
  EXPECT_EQ(calendar(631151999999999999ULL), (std::array<uint16_t, 8>{}));
  EXPECT_EQ(calendar(631152000000000000ULL), (std::array<uint16_t, 8>{1990, 1, 1, 1, 0, 0, 0, 0}));
  EXPECT_EQ(calendar(0), (std::array<uint16_t, 8>{}));
}

TEST(BlfWriter, EmptyFileHasHeaderOnly) {
  TempDir dir;
  for (uint64_t start : {uint64_t(0), kNov2023 + 5 * 1000000}) {
    std::string path = dir.file("empty.blf");
    destroy_blf_writer(create_blf_writer_default(path.c_str(), start));
    Bytes f = read(path);
    ASSERT_EQ(f.size(), 144u);
    EXPECT_EQ(std::string(f.begin(), f.begin() + 4), "LOGG");
    EXPECT_EQ(get32(f, 4), 144u);
    EXPECT_EQ(f[8], 5);
    EXPECT_EQ((std::array<uint8_t, 4>{f[12], f[13], f[14], f[15]}), (std::array<uint8_t, 4>{2, 5, 8, 1}));
    EXPECT_EQ(get64(f, 16), 144u);
    EXPECT_EQ(get64(f, 24), 144u);
    EXPECT_EQ(get32(f, 32), 0u);
    EXPECT_EQ(header_time(f, 56), (std::array<uint16_t, 8>{}));
    EXPECT_EQ(header_time(f, 40), calendar(start));
    for (size_t i = 72; i < 144; i++) ASSERT_EQ(f[i], 0) << i;
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0666u);
  }
}

TEST(BlfWriter, FailsCleanlyWhenTheFileCannotBeCreated) {
  EXPECT_EQ(create_blf_writer_default("/nonexistent-dir/x.blf", 0), nullptr);
  EXPECT_EQ(create_blf_writer_default(nullptr, 0), nullptr);
  EXPECT_EQ(vxcli_blf_open("", 0), nullptr);
  EXPECT_EQ(vxcli_blf_open(nullptr, 0), nullptr);
  destroy_blf_writer(nullptr);
  EXPECT_EQ(vxcli_blf_close(nullptr), -1);
}

TEST(BlfWriter, ObjectPayloadLayouts) {
  TempDir dir;
  std::string path = dir.file("layout.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), kNov2023);
  uint8_t data[64];
  for (int i = 0; i < 64; i++) data[i] = (uint8_t)(0xA0 + i);
  // Classic frame with DLC 12: recorded as DLC 8.
  on_can_message_received(w, kNov2023 + 1000, 0x123, data, 12, 1, false, false, false, false, true, false, false);
  // CAN FD, extended, DLC 13 (32 bytes), BRS and ESI, transmitted.
  on_can_message_received(w, kNov2023 + 2000, 0x18FEF100, data, 13, 0, true, false, false, true, false, true, true);
  // Remote frame, transmitted: flags 0x81 and no data.
  on_can_message_received(w, kNov2023 + 3000, 0x7FF, data, 8, 0, false, true, false, false, false, false, false);
  // Error frame: DLC kept, data up to 8.
  on_can_message_received(w, kNov2023 + 4000, 0x55, data, 10, 2, false, false, true, false, true, false, false);
  // LIN with its checksum model first, then LIN without.
  on_lin_message_received_ex(w, kNov2023 + 5000, 0x3C, data, 9, 3, 0x5A, 1, 33, 44, 1, true);
  on_lin_message_received(w, kNov2023 + 6000, 0x10, data, 2, 0, 0x77, 0);
  std::vector<uint8_t> eth(2000, 0xEE);
  on_ethernetex_frame_received(w, kNov2023 + 7000, eth.data(), 100, 1);
  destroy_blf_writer(w);

  Bytes f = read(path);
  auto cs = containers(f);
  ASSERT_EQ(cs.size(), 1u);
  EXPECT_EQ(cs[0].types, (std::vector<uint32_t>{1, 100, 1, 73, 42, 11, 11, 120}));
  EXPECT_EQ(get32(f, 32), 8u);  // object count
  size_t at = 144 + 32;
  auto next = [&](uint32_t payload, uint64_t rel) {
    EXPECT_EQ(get32(f, at + 8), payload + 32);
    EXPECT_EQ(get16(f, at + 4), 32u);
    EXPECT_EQ(get16(f, at + 6), 1u);
    EXPECT_EQ(get32(f, at + 16), 2u);  // nanoseconds
    EXPECT_EQ(get64(f, at + 24), rel);
    size_t p = at + 32;
    at += 32 + payload + (-payload & 3u);
    return p;
  };
  size_t p = next(16, 1000);
  EXPECT_EQ(get16(f, p), 2u);
  EXPECT_EQ(f[p + 2], 0);  // received
  EXPECT_EQ(f[p + 3], 8);
  EXPECT_EQ(get32(f, p + 4), 0x123u);
  EXPECT_EQ(Bytes(f.begin() + p + 8, f.begin() + p + 16), Bytes(data, data + 8));

  p = next(84, 2000);
  EXPECT_EQ(get16(f, p), 1u);
  EXPECT_EQ(f[p + 2], 1);  // transmitted
  EXPECT_EQ(f[p + 3], 13);
  EXPECT_EQ(get32(f, p + 4), 0x98FEF100u);
  EXPECT_EQ(f[p + 13], 0x07);
  EXPECT_EQ(f[p + 14], 32);
  EXPECT_EQ(Bytes(f.begin() + p + 20, f.begin() + p + 52), Bytes(data, data + 32));
  EXPECT_EQ(Bytes(f.begin() + p + 52, f.begin() + p + 84), Bytes(32, 0));

  p = next(16, 3000);
  EXPECT_EQ(f[p + 2], 0x81);
  EXPECT_EQ(f[p + 3], 8);
  EXPECT_EQ(Bytes(f.begin() + p + 8, f.begin() + p + 16), Bytes(8, 0));

  p = next(32, 4000);
  EXPECT_EQ(get16(f, p), 3u);
  EXPECT_EQ(f[p + 10], 10);
  EXPECT_EQ(f[p + 11], 255);
  EXPECT_EQ(get32(f, p + 12), 1u);
  EXPECT_EQ(get32(f, p + 16), 0x55u);
  EXPECT_EQ(Bytes(f.begin() + p + 24, f.begin() + p + 32), Bytes(data, data + 8));

  p = next(8, 5000);
  EXPECT_EQ(Bytes(f.begin() + p, f.begin() + p + 8), (Bytes{4, 0, 0x3C, 1, 0, 0, 0, 0}));
  p = next(24, 5000);
  EXPECT_EQ(get16(f, p), 4u);
  EXPECT_EQ(f[p + 2], 0x3C);
  EXPECT_EQ(f[p + 3], 8);
  EXPECT_EQ(f[p + 14], 33);
  EXPECT_EQ(f[p + 15], 44);
  EXPECT_EQ(get16(f, p + 16), 0x5Au);
  EXPECT_EQ(f[p + 18], 1);
  p = next(24, 6000);
  EXPECT_EQ(f[p + 3], 2);

  p = next(132, 7000);
  EXPECT_EQ(get16(f, p), 164u);  // frame length + 64
  EXPECT_EQ(get16(f, p + 4), 1u);
  EXPECT_EQ(get64(f, p + 8), 1u);
  EXPECT_EQ(get16(f, p + 20), 1u);
  EXPECT_EQ(get16(f, p + 22), 100u);
}

TEST(BlfWriter, ContainersHoldAtMost2560BytesAndFillExactly) {
  TempDir dir;
  std::vector<uint8_t> eth(8, 0);
  for (int extra : {0, 1}) {
    std::string path = dir.file("fit.blf");
    BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
    for (int i = 0; i < 52; i++) can(w, kNov2023 + i);  // 52 x 48 = 2496 bytes
    // 64 bytes left: an Ethernet object of 64 fits exactly; 65 (+3 padding) does not.
    on_ethernetex_frame_received(w, kNov2023 + 100, eth.data(), (uint16_t)extra, 0);
    destroy_blf_writer(w);
    auto cs = containers(read(path));
    if (extra == 0) {
      ASSERT_EQ(cs.size(), 1u);
      EXPECT_EQ(cs[0].size, 2560u + 32);
    } else {
      ASSERT_EQ(cs.size(), 2u);
      EXPECT_EQ(cs[0].size, 2496u + 32);
      EXPECT_EQ(cs[1].types, std::vector<uint32_t>{120});
    }
  }
}

TEST(BlfWriter, SizeProjectionMatchesTheClosedFile) {
  TempDir dir;
  std::string path = dir.file("size.blf");
  EXPECT_EQ(blf_writer_current_file_size(nullptr), 0u);
  EXPECT_EQ(blf_writer_projected_file_size(nullptr, 16), 0u);
  BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
  EXPECT_EQ(blf_writer_current_file_size(w), 144u);
  EXPECT_EQ(blf_writer_projected_file_size(w, 16), 144u + 32 + 48);
  std::vector<uint64_t> projected, current;
  for (int i = 0; i < 150; i++) {
    projected.push_back(blf_writer_projected_file_size(w, 16));
    can(w, kNov2023 + i);
    current.push_back(blf_writer_current_file_size(w));
    // Each projection is what the writer then reports.
    ASSERT_EQ(projected.back(), current.back()) << i;
  }
  // Projection of an object that does not fit into the open container.
  uint64_t big = blf_writer_projected_file_size(w, 1632);
  std::vector<uint8_t> eth(1600, 1);
  on_ethernetex_frame_received(w, kNov2023 + 500, eth.data(), (uint16_t)eth.size(), 0);
  EXPECT_EQ(blf_writer_current_file_size(w), big);
  destroy_blf_writer(w);
  EXPECT_EQ(read(path).size(), big);
}

TEST(BlfWriter, HeaderNamesFlushedContentBeforeClose) {
  TempDir dir;
  std::string path = dir.file("crash.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), kNov2023);
  for (int i = 0; i < 60; i++) can(w, kNov2023 + (uint64_t)i * 1000000, 0x100 + i);
  // Not closed: this is what a killed process leaves behind.
  Bytes f = read(path);
  ASSERT_EQ(f.size(), 144u + 32 + 53 * 48);
  EXPECT_EQ(get64(f, 16), f.size());
  EXPECT_EQ(get32(f, 32), 53u);
  EXPECT_EQ(header_time(f, 56), calendar(kNov2023 + 53ULL * 1000000));

  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  vxcli_log_frame frame;
  int n = 0;
  while (vxcli_blf_next_frame(r, &frame, nullptr) == 1) {
    EXPECT_EQ(frame.id, 0x100u + n);
    EXPECT_EQ(frame.time_ns, (uint64_t)n * 1000000);
    n++;
  }
  EXPECT_EQ(n, 53);
  BLFReader_close(r);
  destroy_blf_writer(w);
  EXPECT_EQ(get32(read(path), 32), 60u);
}

TEST(BlfWriter, FileOnDiskIsAlwaysCompleteAndNamedByItsHeader) {
  TempDir dir;
  std::string path = dir.file("batch.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), kNov2023);
  auto check = [&](const char* when) {
    SCOPED_TRACE(when);
    Bytes f = read(path);
    EXPECT_EQ(get64(f, 16), f.size());
    auto cs = containers(f);  // whole containers only
    size_t objects = 0;
    for (auto& c : cs) objects += c.types.size();
    EXPECT_EQ(get32(f, 32), objects);
    return f.size();
  };
  for (int i = 0; i < 20000; i++) can(w, kNov2023 + (uint64_t)i * 1000);
  size_t before = check("after many containers");
  EXPECT_GT(before, 144u + 32 + 53 * 48);
  // A batch waits at most a tenth of a second for the next container.
  std::this_thread::sleep_for(std::chrono::milliseconds(150));
  for (int i = 0; i < 60; i++) can(w, kNov2023 + 30000000000ULL + (uint64_t)i);
  EXPECT_EQ(check("after a pause"), blf_writer_current_file_size(w) - (32 + w->used));
  destroy_blf_writer(w);
  check("closed");
  EXPECT_EQ(get32(read(path), 32), 20060u);
}

TEST(BlfWriter, FirstObjectSetsTheStartWhenNoneGiven) {
  TempDir dir;
  std::string path = dir.file("start.blf");
  BLFWriter* w = create_blf_writer_default(path.c_str(), 0);
  can(w, kNov2023 + 777);
  can(w, kNov2023 + 1777);
  destroy_blf_writer(w);
  Bytes f = read(path);
  EXPECT_EQ(get64(f, 144 + 32 + 24), 0u);
  EXPECT_EQ(get64(f, 144 + 32 + 48 + 24), 1000u);
  EXPECT_EQ(header_time(f, 40), calendar(kNov2023 + 777));
  EXPECT_EQ(header_time(f, 56), calendar(kNov2023 + 1777));
}

TEST(BlfFacade, WritesFramesAndRejectsBadArguments) {
  TempDir dir;
  std::string path = dir.file("facade.blf");
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), kNov2023);
  ASSERT_NE(h, nullptr);
  vxcli_log_frame f = {};
  f.channel = 2;
  f.id = 0x42;
  f.dlc = f.length = 2;
  f.data[0] = 0xAB;
  EXPECT_EQ(vxcli_blf_write_frame(nullptr, kNov2023, &f), -1);
  EXPECT_EQ(vxcli_blf_write_frame(h, kNov2023, nullptr), -1);
  f.channel = 0;
  EXPECT_EQ(vxcli_blf_write_frame(h, kNov2023, &f), -1);
  f.channel = 2;
  EXPECT_EQ(vxcli_blf_write_frame(h, kNov2023 + 10, &f), 1);
  f.is_lin = 1;
  f.lin_enhanced = 1;
  EXPECT_EQ(vxcli_blf_write_frame(h, kNov2023 + 20, &f), 1);
  EXPECT_EQ(vxcli_blf_close(h), 0);
  auto cs = containers(read(path));
  ASSERT_EQ(cs.size(), 1u);
  EXPECT_EQ(cs[0].types, (std::vector<uint32_t>{1, 42, 11}));
}
