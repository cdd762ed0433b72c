#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "blf_build.h"
#include "logging/blf_reader.h"
#include "logging/blf_writer.h"
#include "message/frame.h"

using namespace blftest;

namespace {

struct Next {
  int rc;
  uint32_t type;
  uint8_t base[16];
  uint8_t ext[16];
  uint8_t frame[84];
};

Next next(BLFReader* r) {
  Next n{};
  n.rc = BLFReader_getnextmsg(r, n.base, n.ext, n.frame, &n.type);
  return n;
}

// Reads every frame of a file; rc is the final result (0 = clean end).
struct ReadAll {
  std::vector<vxcli_log_frame> frames;
  int rc = 0;
  uint32_t objects = 0;
};

ReadAll read_all(const std::string& path) {
  ReadAll out;
  BLFReader* r = BLFReader_init(path.c_str());
  if (!r) {
    out.rc = -2;
    return out;
  }
  vxcli_log_frame f;
  while ((out.rc = vxcli_blf_next_frame(r, &f, &out.objects)) == 1) out.frames.push_back(f);
  BLFReader_close(r);
  return out;
}

Bytes frames_stream(int count, uint32_t first_id = 0x100) {
  Bytes s;
  for (int i = 0; i < count; i++)
    append(s, object(1, can_payload(1, first_id + i, 8, {(uint8_t)i, 1, 2, 3, 4, 5, 6, 7}),
                     (uint64_t)i * 1000));
  return s;
}

}  // namespace

TEST(BlfReader, ReadsBackWhatTheWriterWrote) {
  TempDir dir;
  std::string path = dir.file("rt.blf");
  const uint64_t start = 1700000000ULL * 1000000000ULL;
  vxcli_blf_handle* h = vxcli_blf_open(path.c_str(), start);
  std::vector<vxcli_log_frame> written;
  for (int i = 0; i < 300; i++) {
    vxcli_log_frame f = {};
    f.channel = 1 + i % 3;
    f.id = i % 2 ? 0x18DA0000u + (uint32_t)i : (uint32_t)i & 0x7FF;
    f.extended = i % 2;
    f.tx = i % 5 == 0;
    f.fd = i % 4 == 1;
    f.brs = f.fd && i % 8 == 1;
    f.esi = f.fd && i % 16 == 1;
    f.remote = !f.fd && i % 7 == 0;
    f.dlc = f.fd ? i % 16 : i % 9;
    f.length = f.remote ? 0 : vxcli_dlc_to_bytes(f.dlc);
    for (int k = 0; k < f.length; k++) f.data[k] = (uint8_t)(i * 7 + k);
    if (i % 10 == 3) {  // LIN
      f = {};
      f.channel = 2;
      f.is_lin = 1;
      f.id = (uint32_t)i % 64;
      f.dlc = f.length = i % 9;
      for (int k = 0; k < f.length; k++) f.data[k] = (uint8_t)(k + 1);
      f.lin_checksum = (uint8_t)i;
      f.lin_enhanced = i % 20 == 3;
      f.tx = 1;
    }
    uint64_t ts = start + (uint64_t)i * 1234567;
    ASSERT_EQ(vxcli_blf_write_frame(h, ts, &f), 1);
    f.time_ns = (uint64_t)i * 1234567;
    written.push_back(f);
  }
  vxcli_blf_close(h);

  ReadAll got = read_all(path);
  EXPECT_EQ(got.rc, 0);
  ASSERT_EQ(got.frames.size(), written.size());
  EXPECT_EQ(got.objects, 300u + 30u);  // every LIN frame carries a checksum model object
  for (size_t i = 0; i < written.size(); i++) {
    const vxcli_log_frame& a = written[i];
    const vxcli_log_frame& b = got.frames[i];
    SCOPED_TRACE(i);
    EXPECT_EQ(b.time_ns, a.time_ns);
    EXPECT_EQ(b.channel, a.channel);
    EXPECT_EQ(b.is_lin, a.is_lin);
    EXPECT_EQ(b.id, a.id);
    EXPECT_EQ(b.extended, a.extended);
    EXPECT_EQ(b.fd, a.fd);
    EXPECT_EQ(b.brs, a.brs);
    EXPECT_EQ(b.esi, a.esi);
    EXPECT_EQ(b.remote, a.remote);
    EXPECT_EQ(b.tx, a.tx);
    EXPECT_EQ(b.dlc, a.dlc);
    EXPECT_EQ(b.length, a.length);
    EXPECT_EQ(memcmp(b.data, a.data, (size_t)a.length), 0);
    EXPECT_EQ(b.lin_checksum, a.lin_checksum);
    EXPECT_EQ(b.lin_enhanced, a.lin_enhanced);
  }
}

TEST(BlfReader, CompressedSplitAndOddlyPaddedContainers) {
  TempDir dir;
  Bytes stream = frames_stream(40);
  // Cut the object stream at arbitrary points: objects continue in the next container.
  const std::vector<size_t> cuts = {0, 1, 47, 50, 700, 1001, 1920};
  for (int method : {0, 2}) {
    for (bool odd_pad : {false, true}) {
      Bytes f = file_header();
      for (size_t c = 0; c < cuts.size(); c++) {
        size_t from = cuts[c], to = c + 1 < cuts.size() ? cuts[c + 1] : stream.size();
        Bytes part(stream.begin() + (long)from, stream.begin() + (long)to);
        uint32_t size = 32 + (uint32_t)(method == 2 ? 0 : part.size());
        Bytes box = container(part, method);
        if (odd_pad) {  // padding of size % 4 instead of (-size) & 3
          size = get32(box, 8);
          box = container(part, method, (int)(size % 4));
        }
        append(f, box);
      }
      std::string path = dir.file("split.blf");
      write(path, f);
      ReadAll got = read_all(path);
      SCOPED_TRACE(testing::Message() << "method " << method << " odd " << odd_pad);
      EXPECT_EQ(got.rc, 0);
      ASSERT_EQ(got.frames.size(), 40u);
      for (int i = 0; i < 40; i++) {
        EXPECT_EQ(got.frames[i].id, 0x100u + i);
        EXPECT_EQ(got.frames[i].data[0], i);
        EXPECT_EQ(got.frames[i].time_ns, (uint64_t)i * 1000);
      }
    }
  }
}

TEST(BlfReader, LargeCompressedContainerStreamsThroughSmallBuffers) {
  TempDir dir;
  Bytes stream = frames_stream(50000);  // 2.4 MB inflated, far beyond the reader's window
  Bytes f = file_header();
  append(f, container(Bytes(stream.begin(), stream.begin() + 1000000), 2));
  append(f, container(Bytes(stream.begin() + 1000000, stream.end()), 2));
  std::string path = dir.file("big.blf");
  write(path, f);
  ReadAll got = read_all(path);
  EXPECT_EQ(got.rc, 0);
  ASSERT_EQ(got.frames.size(), 50000u);
  for (int i = 0; i < 50000; i += 997) EXPECT_EQ(got.frames[i].id, (0x100u + i) & 0xFFFFFFFF);
}

TEST(BlfReader, StructuralFaultsAreMinusOne) {
  TempDir dir;
  std::string path = dir.file("bad.blf");
  auto result = [&](const Bytes& body) {
    Bytes f = file_header();
    append(f, body);
    write(path, f);
    return read_all(path);
  };
  Bytes good = frames_stream(3);
  // Unknown compression method.
  Bytes box = container(good, 0);
  box[16] = 3;
  EXPECT_EQ(result(box).rc, -1);
  // Stored container whose declared size disagrees.
  box = container(good, 0);
  box[24]++;
  EXPECT_EQ(result(box).rc, -1);
  // Container header size/version word wrong.
  box = container(good, 0);
  box[6] = 2;
  EXPECT_EQ(result(box).rc, -1);
  // Bad signature inside the stream, after one good frame.
  Bytes broken = good;
  broken[48] = 'X';
  ReadAll r = result(container(broken, 0));
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.frames.size(), 1u);
  // Compressed data cut short, or corrupted.
  Bytes many = frames_stream(200);
  Bytes packed = container(many, 2);
  Bytes half(packed.begin() + 32, packed.begin() + 32 + (long)(packed.size() - 32) / 2);
  EXPECT_EQ(result(container_raw(half, 2, (uint32_t)many.size())).rc, -1);
  box = container(frames_stream(200), 2);
  for (size_t i = 40; i < 60; i++) box[i] ^= 0x5A;
  EXPECT_EQ(result(box).rc, -1);
  // Container that claims more bytes than the file has.
  box = container(good, 0);
  box.resize(box.size() - 10);
  EXPECT_EQ(result(box).rc, -1);
  // Object cut at the end of the last container.
  EXPECT_EQ(result(container(Bytes(good.begin(), good.end() - 4), 0)).rc, -1);
  // Payload shorter than the type needs.
  EXPECT_EQ(result(container(object(1, Bytes(8, 0), 0), 0)).rc, -1);
  // Unknown object header version.
  Bytes v3 = object(1, can_payload(1, 1, 1, {1}), 0);
  v3[6] = 3;
  EXPECT_EQ(result(container(v3, 0)).rc, -1);
  // Classic frame with DLC 12 and a LIN frame with DLC 9.
  EXPECT_EQ(result(container(object(1, can_payload(1, 1, 12, {}), 0), 0)).rc, -1);
  Bytes lin(24, 0);
  lin[0] = 1;
  lin[3] = 9;
  EXPECT_EQ(result(container(object(11, lin, 0), 0)).rc, -1);
  // Nothing after the header is a clean end; so is trailing zero padding.
  EXPECT_EQ(result({}).rc, 0);
  EXPECT_EQ(result(Bytes{0, 0, 0}).rc, 0);
  EXPECT_EQ(result(Bytes{0, 7, 0}).rc, -1);
}

TEST(BlfReader, OpenRequiresAPlausibleHeader) {
  TempDir dir;
  std::string path = dir.file("h.blf");
  EXPECT_EQ(BLFReader_init(dir.file("missing.blf").c_str()), nullptr);
  EXPECT_EQ(BLFReader_init(nullptr), nullptr);
  Bytes f = file_header();
  f[0] = 'X';
  write(path, f);
  EXPECT_EQ(BLFReader_init(path.c_str()), nullptr);
  f = file_header();
  f[4] = 71;
  write(path, f);
  EXPECT_EQ(BLFReader_init(path.c_str()), nullptr);
  f = file_header();
  f[4] = 200;  // beyond the file
  write(path, f);
  EXPECT_EQ(BLFReader_init(path.c_str()), nullptr);
  write(path, Bytes(40, 0));
  EXPECT_EQ(BLFReader_init(path.c_str()), nullptr);
  // A 72-byte header is enough; objects may stand outside containers.
  f = Bytes(72, 0);
  memcpy(f.data(), "LOGG", 4);
  f[4] = 72;
  append(f, object(1, can_payload(3, 0x7, 1, {9}), 5));
  write(path, f);
  ReadAll got = read_all(path);
  EXPECT_EQ(got.rc, 0);
  ASSERT_EQ(got.frames.size(), 1u);
  EXPECT_EQ(got.frames[0].channel, 3);
}

TEST(BlfReader, HeaderVersionsAndTimeUnits) {
  TempDir dir;
  std::string path = dir.file("v.blf");
  Bytes s;
  append(s, object(1, can_payload(1, 1, 1, {1}), 12345, 1));        // 10 us units
  append(s, object(1, can_payload(1, 2, 1, {2}), 777, 2, true));    // version 2, ns
  Bytes f = file_header();
  append(f, container(s));
  write(path, f);
  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  Next n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(get32(Bytes(n.ext, n.ext + 16), 0), 1u);
  vxcli_log_frame out;
  ASSERT_EQ(vxcli_blf_frame_to_log(n.type, n.ext, n.frame, &out), 1);
  EXPECT_EQ(out.time_ns, 123450000u);
  n = next(r);
  ASSERT_EQ(n.rc, 1);
  Bytes ext(n.ext, n.ext + 16);
  EXPECT_EQ(get32(ext, 0), 2u);
  EXPECT_EQ(get16(ext, 4), 0u);
  EXPECT_EQ(get64(ext, 8), 777u);
  EXPECT_EQ(next(r).rc, 0);
  EXPECT_EQ(r->count, 2u);
  BLFReader_close(r);

  EXPECT_EQ(BLFReader_timestampToNanoseconds(1, 1844674407370956ULL), UINT64_MAX);
  EXPECT_EQ(BLFReader_timestampToNanoseconds(1, 1844674407370955ULL), 18446744073709550000ULL);
  EXPECT_EQ(BLFReader_timestampToNanoseconds(2, 42), 42u);
  EXPECT_EQ(BLFReader_timestampToNanoseconds(0, 42), 42u);
}

TEST(BlfReader, OtherFrameTypesAndLinModels) {
  TempDir dir;
  std::string path = dir.file("types.blf");
  Bytes s;
  // Type 86: a CAN message with a longer payload, reported as type 1.
  Bytes p86 = can_payload(2, 0x80000123u, 2, {0xAA, 0xBB});
  p86.resize(24, 0);
  append(s, object(86, p86, 1));
  // Type 101, FD with BRS, 12 valid bytes, transmitted.
  Bytes p101(40, 0);
  p101[0] = 1;
  p101[1] = 9;
  p101[2] = 12;
  p101[4] = 0x55;
  p101[12] = 0x00; p101[13] = 0x30;  // flags: bit 12 (FD) and 13 (BRS)
  p101[34] = 1;
  for (int i = 0; i < 12; i++) p101.push_back((uint8_t)(0x10 + i));
  append(s, object(101, p101, 2));
  // Type 101, classic remote frame.
  Bytes p101c(40, 0);
  p101c[0] = 1;
  p101c[1] = 4;
  p101c[12] = 0x10;
  append(s, object(101, p101c, 3));
  // An unknown type is consumed.
  append(s, object(65, Bytes(20, 0xFF), 4));
  // LIN checksum info outside the table, then for channel 1 id 0x21, then the frame.
  append(s, object(42, Bytes{33, 0, 0x21, 1, 0, 0, 0, 0}, 5));
  append(s, object(42, Bytes{1, 0, 64, 1, 0, 0, 0, 0}, 5));
  append(s, object(42, Bytes{1, 0, 0x21, 1, 0, 0, 0, 0}, 5));
  Bytes lin(24, 0);
  lin[0] = 1;
  lin[2] = 0x21;
  lin[3] = 2;
  lin[4] = 0xC0;
  lin[5] = 0xDE;
  lin[16] = 0x99;
  append(s, object(11, lin, 6));
  // Type 57 with bit-time figures at 19200 baud.
  Bytes p57(132, 0);
  auto at64 = [&](size_t o, uint64_t v) { for (int i = 0; i < 8; i++) p57[o + i] = (uint8_t)(v >> (8 * i)); };
  at64(0, 1000000);                       // start of frame
  p57[8] = 0x00; p57[9] = 0x4B;           // 19200
  p57[12] = 2;
  p57[37] = 0x10;
  p57[38] = 2;
  p57[39] = 0;                            // classic, known
  at64(40, 1000000 + 1770833);            // end of header: 34 bit times
  at64(56, 1000000 + 3000000);            // data byte index 2: 57.6 -> 58 + 10
  p57[112] = 0x01;
  p57[113] = 0x02;
  p57[120] = 0x44;
  p57[122] = 1;
  append(s, object(57, p57, 7));
  Bytes f = file_header();
  append(f, container(s, 2));
  write(path, f);

  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  Next n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(n.type, 1u);
  EXPECT_EQ(get32(Bytes(n.frame, n.frame + 8), 4), 0x80000123u);

  n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(n.type, 100u);
  vxcli_log_frame out;
  ASSERT_EQ(vxcli_blf_frame_to_log(n.type, n.ext, n.frame, &out), 1);
  EXPECT_TRUE(out.fd && out.brs && out.tx && !out.esi);
  EXPECT_EQ(out.dlc, 9);
  EXPECT_EQ(out.length, 12);
  EXPECT_EQ(out.data[11], 0x1B);
  EXPECT_EQ(out.id, 0x55u);

  n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(n.type, 1u);
  ASSERT_EQ(vxcli_blf_frame_to_log(n.type, n.ext, n.frame, &out), 1);
  EXPECT_TRUE(out.remote);
  EXPECT_EQ(out.length, 0);

  EXPECT_EQ(next(r).rc, 2);  // unknown
  EXPECT_EQ(next(r).rc, 2);
  EXPECT_EQ(next(r).rc, 2);
  uint8_t known = 0;
  for (auto& row : r->lin_known)
    for (uint8_t k : row) known |= k;
  EXPECT_EQ(known, 0);  // channel 33 and identifier 64 left the table alone
  EXPECT_EQ(next(r).rc, 2);
  n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(n.type, 11u);
  EXPECT_EQ(n.frame[24], 1);
  EXPECT_EQ(n.frame[25], 1);
  ASSERT_EQ(vxcli_blf_frame_to_log(n.type, n.ext, n.frame, &out), 1);
  EXPECT_TRUE(out.is_lin && out.lin_enhanced);
  EXPECT_EQ(out.lin_checksum, 0x99);
  EXPECT_EQ(out.length, 2);

  n = next(r);
  ASSERT_EQ(n.rc, 1);
  EXPECT_EQ(n.type, 57u);
  EXPECT_EQ(n.frame[0], 2);
  EXPECT_EQ(n.frame[2], 0x10);
  EXPECT_EQ(n.frame[3], 2);
  EXPECT_EQ(n.frame[4], 0x01);
  EXPECT_EQ(n.frame[14], 34);
  EXPECT_EQ(n.frame[15], 68);
  EXPECT_EQ(n.frame[16], 0x44);
  EXPECT_EQ(n.frame[18], 1);
  EXPECT_EQ(n.frame[24], 0);
  EXPECT_EQ(n.frame[25], 1);
  EXPECT_EQ(get32(Bytes(n.frame, n.frame + 84), 28), 19200u);
  EXPECT_EQ(n.frame[32], 1);
  EXPECT_EQ(next(r).rc, 0);
  BLFReader_close(r);
}

TEST(BlfReader, RawAccessStaysWithinTheFile) {
  TempDir dir;
  std::string path = dir.file("raw.blf");
  Bytes f = file_header();
  append(f, container(frames_stream(2)));
  write(path, f);
  BLFReader* r = BLFReader_init(path.c_str());
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(BLFReader_getFileSize(r), f.size());
  EXPECT_EQ(memcmp(BLFReader_getFileHeader(r), f.data(), 72), 0);
  EXPECT_EQ(r->position, 144u);
  uint8_t buf[64];
  EXPECT_EQ(read_exact(r, buf, f.size()), 0);
  EXPECT_EQ(r->position, 144u);
  EXPECT_EQ(skip_exact(r, f.size() - 143), 0);
  EXPECT_EQ(skip_exact(r, 4), 1);
  EXPECT_EQ(r->position, 148u);
  EXPECT_EQ(BLFReader_fseek(r, -1, 0), -1);
  EXPECT_EQ(BLFReader_fseek(r, 1, 2), -1);
  EXPECT_EQ(r->position, 148u);
  EXPECT_EQ(BLFReader_fseek(r, -4, 1), 0);
  EXPECT_EQ(r->position, 144u);
  EXPECT_EQ(BLFReader_fread(r, buf, SIZE_MAX / 2, 4), 0u);  // size x count overflows
  EXPECT_EQ(BLFReader_fread(r, buf, 4, 1), 1u);
  EXPECT_EQ(memcmp(buf, "LOBJ", 4), 0);
  EXPECT_EQ(BLFReader_fseek(r, 144, 0), 0);
  uint32_t type;
  uint8_t base[16], ext[16], frame[84];
  EXPECT_EQ(BLFReader_getnextmsg(r, base, ext, frame, &type), 1);
  EXPECT_EQ(BLFReader_getnextmsg(r, nullptr, ext, frame, &type), -1);
  EXPECT_EQ(BLFReader_getnextmsg(nullptr, base, ext, frame, &type), -1);
  BLFReader_close(r);
  BLFReader_close(nullptr);
}
