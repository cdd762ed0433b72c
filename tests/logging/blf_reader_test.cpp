#include "log_test.h"
#include "logging/blf_reader.h"
#include "logging/blf_writer.h"

using namespace logtest;

namespace {

struct Next {
  int rc;
  uint32_t type;
  uint8_t base[16], ext[16], frame[84];
  vxcli_log_frame log;
};

Next next(BLFReader* r) {
  Next n{};
  n.rc = BLFReader_getnextmsg(r, n.base, n.ext, n.frame, &n.type);
  if (n.rc == 1) vxcli_blf_frame_to_log(n.type, n.ext, n.frame, &n.log);
  return n;
}

Bytes frames_stream(int count) {
  Bytes s;
  for (int i = 0; i < count; i++)
    append(s, object(1, can_payload(1, 0x100 + i, 8, {(uint8_t)i, 1, 2, 3, 4, 5, 6, 7}), i * 1000ULL));
  return s;
}

std::string file_with(const TempDir& dir, const Bytes& body) {
  Bytes f = file_header();
  append(f, body);
  std::string path = dir.file("t.blf");
  write(path, f);
  return path;
}

}  // namespace

TEST(BlfReader, ReadsBackWhatTheWriterWrote) {
  TempDir dir;
  std::string path = dir.file("rt.blf");
  const uint64_t start = 1700000000ULL * 1000000000ULL;
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), start);
  auto written = sample_frames();
  for (const auto& f : written) ASSERT_EQ(vxcli_blf_write_frame(h, start + f.time_ns, &f), 1);
  vxcli_blf_close(h);
  int rc;
  auto got = read_frames(path, true, &rc);
  EXPECT_EQ(rc, 0);
  expect_same_frames(got, written);
  for (size_t i = 0; i < got.size(); i++) ASSERT_EQ(got[i].time_ns, written[i].time_ns);
}

TEST(BlfReader, CompressedSplitAndOddlyPaddedContainers) {
  TempDir dir;
  Bytes stream = frames_stream(40);
  const std::vector<size_t> cuts = {0, 1, 47, 50, 700, 1001, 1920};  // objects cut anywhere
  for (int method : {0, 2}) {
    for (bool odd_pad : {false, true}) {
      Bytes body;
      for (size_t c = 0; c < cuts.size(); c++) {
        Bytes part(stream.begin() + (long)cuts[c],
                   c + 1 < cuts.size() ? stream.begin() + (long)cuts[c + 1] : stream.end());
        Bytes box = container(part, method);
        uint32_t size = (uint32_t)get(box, 8, 4);
        append(body, odd_pad ? container(part, method, (int)(size % 4)) : box);
      }
      int rc;
      auto got = read_frames(file_with(dir, body), false, &rc);
      SCOPED_TRACE(testing::Message() << "method " << method << " odd padding " << odd_pad);
      EXPECT_EQ(rc, 0);
      ASSERT_EQ(got.size(), 40u);
      for (int i = 0; i < 40; i++) {
        EXPECT_EQ(got[i].id, 0x100u + i);
        EXPECT_EQ(got[i].data[0], i);
        EXPECT_EQ(got[i].time_ns, i * 1000ULL);
      }
    }
  }
  // Containers much larger than the reader's buffers stream through them.
  Bytes big = frames_stream(50000);
  Bytes body = container(Bytes(big.begin(), big.begin() + 1000000), 2);
  append(body, container(Bytes(big.begin() + 1000000, big.end()), 2));
  auto got = read_frames(file_with(dir, body));
  ASSERT_EQ(got.size(), 50000u);
  EXPECT_EQ(got[49999].id, 0x100u + 49999);
}

TEST(BlfReader, StructuralFaultsAreMinusOne) {
  TempDir dir;
  auto result = [&](const Bytes& body, size_t* frames = nullptr) {
    int rc;
    auto got = read_frames(file_with(dir, body), false, &rc);
    if (frames) *frames = got.size();
    return rc;
  };
  Bytes good = frames_stream(3);
  Bytes box = container(good);
  box[16] = 3;  // unknown compression method
  EXPECT_EQ(result(box), -1);
  box = container(good);
  box[24]++;  // declared size disagrees
  EXPECT_EQ(result(box), -1);
  box = container(good);
  box[6] = 2;  // container header version
  EXPECT_EQ(result(box), -1);
  Bytes broken = good;
  broken[48] = 'X';  // second object's signature
  size_t frames;
  EXPECT_EQ(result(container(broken), &frames), -1);
  EXPECT_EQ(frames, 1u);
  Bytes many = frames_stream(200);
  Bytes packed = container(many, 2);
  Bytes half(packed.begin() + 32, packed.begin() + 32 + (long)(packed.size() - 32) / 2);
  EXPECT_EQ(result(container_raw(half, 2, (uint32_t)many.size())), -1);  // inflate runs dry
  for (size_t i = 40; i < 60; i++) packed[i] ^= 0x5A;
  EXPECT_EQ(result(packed), -1);  // corrupt deflate data
  box = container(good);
  box.resize(box.size() - 10);  // container beyond the end of the file
  EXPECT_EQ(result(box), -1);
  EXPECT_EQ(result(container(Bytes(good.begin(), good.end() - 4))), -1);  // object cut short
  EXPECT_EQ(result(container(object(1, Bytes(8, 0), 0))), -1);             // payload too short
  Bytes v3 = object(1, can_payload(1, 1, 1, {1}), 0);
  v3[6] = 3;
  EXPECT_EQ(result(container(v3)), -1);
  EXPECT_EQ(result(container(object(1, can_payload(1, 1, 12, {}), 0))), -1);  // classic DLC 12
  Bytes lin(24, 0);
  lin[0] = 1, lin[3] = 9;
  EXPECT_EQ(result(container(object(11, lin, 0))), -1);
  EXPECT_EQ(result({}), 0);
  EXPECT_EQ(result(Bytes{0, 0, 0}), 0);  // trailing padding
  EXPECT_EQ(result(Bytes{0, 7, 0}), -1);

  std::string path = dir.file("h.blf");
  for (auto patch : {std::make_pair(0, 'X'), std::make_pair(4, (char)71), std::make_pair(4, (char)200)}) {
    Bytes f = file_header();
    f[(size_t)patch.first] = (uint8_t)patch.second;
    write(path, f);
    EXPECT_EQ(BLFReader_init(path.c_str()), nullptr);
  }
  EXPECT_EQ(BLFReader_init(dir.file("missing.blf").c_str()), nullptr);
  // A 72-byte header is enough, and objects may stand outside containers.
  Bytes f(72, 0);
  memcpy(f.data(), "LOGG", 4);
  f[4] = 72;
  append(f, object(1, can_payload(3, 7, 1, {9}), 5));
  write(path, f);
  auto got = read_frames(path);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].channel, 3);
}

TEST(BlfReader, HeaderVersionsTimeUnitsAndOtherTypes) {
  TempDir dir;
  Bytes s;
  append(s, object(1, can_payload(1, 1, 1, {1}), 12345, 1));      // 10 us units
  append(s, object(1, can_payload(1, 2, 1, {2}), 777, 2, true));  // header version 2
  Bytes p86 = can_payload(2, 0x80000123u, 2, {0xAA, 0xBB});
  p86.resize(24, 0);
  append(s, object(86, p86, 0));
  Bytes fd64(40, 0);  // CAN FD 64: channel, DLC 9, 12 bytes, FD + BRS flags, transmitted
  fd64[0] = 1, fd64[1] = 9, fd64[2] = 12, fd64[4] = 0x55, fd64[13] = 0x30, fd64[34] = 1;
  for (int i = 0; i < 12; i++) fd64.push_back((uint8_t)(0x10 + i));
  append(s, object(101, fd64, 0));
  append(s, object(65, Bytes(20, 0xFF), 0));                                // unknown
  append(s, object(42, Bytes{33, 0, 0x21, 1, 0, 0, 0, 0}, 0));              // channel 33
  append(s, object(42, Bytes{1, 0, 64, 1, 0, 0, 0, 0}, 0));                 // identifier 64
  append(s, object(42, Bytes{1, 0, 0x21, 1, 0, 0, 0, 0}, 0));
  Bytes lin(24, 0);
  lin[0] = 1, lin[2] = 0x21, lin[3] = 2, lin[16] = 0x99;
  append(s, object(11, lin, 0));
  Bytes lin2(132, 0);  // LIN message 2 at 19200 baud
  auto at64 = [&](size_t o, uint64_t v) { for (int i = 0; i < 8; i++) lin2[o + i] = (uint8_t)(v >> (8 * i)); };
  at64(0, 1000000);
  lin2[9] = 0x4B;
  lin2[12] = 2, lin2[37] = 0x10, lin2[38] = 2, lin2[112] = 0x01, lin2[120] = 0x44, lin2[122] = 1;
  at64(40, 1000000 + 1770833);  // end of header: 34 bit times
  at64(56, 1000000 + 3000000);  // data byte 2: 57.6 -> 58, + 10
  append(s, object(57, lin2, 0));
  Bytes f = file_header();
  append(f, container(s, 2));
  std::string path = dir.file("types.blf");
  write(path, f);

  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  Next n = next(r);
  EXPECT_EQ(n.log.time_ns, 123450000u);
  n = next(r);
  EXPECT_EQ(Bytes(n.ext, n.ext + 16), (Bytes{2, 0, 0, 0, 0, 0, 0, 0, 0x09, 0x03, 0, 0, 0, 0, 0, 0}));
  n = next(r);
  EXPECT_EQ(n.type, 1u);
  EXPECT_EQ(n.log.id, 0x123u);
  EXPECT_EQ(n.log.extended, 1);
  n = next(r);
  EXPECT_EQ(n.type, 100u);
  EXPECT_TRUE(n.log.fd && n.log.brs && n.log.tx);
  EXPECT_EQ(n.log.length, 12);
  EXPECT_EQ(n.log.data[11], 0x1B);
  for (int i = 0; i < 3; i++) EXPECT_EQ(next(r).rc, 2);
  uint8_t known = 0;
  for (auto& row : r->lin_known)
    for (uint8_t k : row) known |= k;
  EXPECT_EQ(known, 0);  // channel 33 and identifier 64 left the table alone
  EXPECT_EQ(next(r).rc, 2);
  n = next(r);
  EXPECT_EQ(n.type, 11u);
  EXPECT_TRUE(n.log.is_lin && n.log.lin_enhanced);
  EXPECT_EQ(n.log.lin_checksum, 0x99);
  n = next(r);
  EXPECT_EQ(n.type, 57u);
  EXPECT_EQ(Bytes(n.frame, n.frame + 19),
            (Bytes{2, 0, 0x10, 2, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 34, 68, 0x44, 0, 1}));
  EXPECT_EQ(Bytes(n.frame + 24, n.frame + 33), (Bytes{0, 1, 0, 0, 0x00, 0x4B, 0, 0, 1}));
  EXPECT_EQ(next(r).rc, 0);
  EXPECT_EQ(r->count, 10u);
  BLFReader_close(r);

  EXPECT_EQ(BLFReader_timestampToNanoseconds(1, 1844674407370956ULL), UINT64_MAX);
  EXPECT_EQ(BLFReader_timestampToNanoseconds(1, 1844674407370955ULL), 18446744073709550000ULL);
  EXPECT_EQ(BLFReader_timestampToNanoseconds(0, 42), 42u);
}

TEST(BlfReader, RawAccessStaysWithinTheFile) {
  TempDir dir;
  Bytes f = file_header();
  append(f, container(frames_stream(2)));
  std::string path = dir.file("raw.blf");
  write(path, f);
  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  uint8_t buf[64];
  EXPECT_EQ(read_exact(r, buf, f.size()), 0);
  EXPECT_EQ(skip_exact(r, f.size() - 143), 0);
  EXPECT_EQ(BLFReader_fseek(r, -1, 0) + BLFReader_fseek(r, 1, 2), -2);
  EXPECT_EQ(BLFReader_fread(r, buf, SIZE_MAX / 2, 4), 0u);  // size x count overflows
  EXPECT_EQ(r->position, 144u);
  EXPECT_EQ(BLFReader_fread(r, buf, 4, 1), 1u);
  EXPECT_EQ(memcmp(buf, "LOBJ", 4), 0);
  EXPECT_EQ(BLFReader_fseek(r, -4, 1), 0);  // the object stream restarts there
  EXPECT_EQ(next(r).rc, 1);
  BLFReader_close(r);
}
