#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <sstream>

#include "database/dbc.h"
#include "json/json.h"
#include "vxtest.h"

namespace {

Signal make_signal(ByteOrder order, uint16_t start, uint16_t length, bool is_signed = false,
                   double factor = 1, double offset = 0) {
  Signal s;
  s.name = "S";
  s.order = order;
  s.startBit = start;
  s.length = length;
  s.sign = is_signed ? 1 : 0;
  s.factor = factor;
  s.offset = offset;
  return s;
}

uint64_t extract(const std::vector<uint8_t>& data, const Signal& s) {
  return s.order == DBC_INTEL
             ? vxcli_dbc_extract_raw(data.data(), data.size(), s.startBit, s.length, DBC_INTEL, 0)
             : vxcli_dbc_extract_raw(data.data(), data.size(), s.getLastBit(), s.length,
                                     DBC_MOTOROLA, s.startBit);
}

TEST(DbcCodec, ExtractionInBothByteOrders) {
  EXPECT_EQ(extract({0x34, 0x12}, make_signal(DBC_INTEL, 0, 16)), 0x1234u);
  EXPECT_EQ(extract({0x12, 0x34}, make_signal(DBC_MOTOROLA, 7, 16)), 0x1234u);
  // Intel across a byte boundary, starting mid-byte.
  EXPECT_EQ(extract({0xAB, 0xCD, 0xEF}, make_signal(DBC_INTEL, 4, 12)), 0xCDAu);
  // Motorola starting mid-byte and running into the next bytes.
  EXPECT_EQ(extract({0x0A, 0xBC, 0xDE}, make_signal(DBC_MOTOROLA, 3, 16)), 0xABCDu);
  EXPECT_EQ(extract({0x01}, make_signal(DBC_MOTOROLA, 0, 1)), 1u);
  EXPECT_EQ(extract({0x02}, make_signal(DBC_MOTOROLA, 0, 1)), 0u);
  // Start 1, length 4: bits 1,0 of byte 0, then bits 7,6 of byte 1.
  EXPECT_EQ(extract({0x02, 0x40}, make_signal(DBC_MOTOROLA, 1, 4)), 0x9u);
  EXPECT_EQ(extract({0x01, 0x80}, make_signal(DBC_MOTOROLA, 1, 4)), 0x6u);
  // Full 64 bits.
  std::vector<uint8_t> ramp = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(extract(ramp, make_signal(DBC_INTEL, 0, 64)), 0x0807060504030201u);
  EXPECT_EQ(extract(ramp, make_signal(DBC_MOTOROLA, 7, 64)), 0x0102030405060708u);
  // Bits beyond the payload read as zero; bad arguments give 0.
  EXPECT_EQ(extract({0xFF}, make_signal(DBC_INTEL, 4, 8)), 0x0Fu);
  EXPECT_EQ(extract({0xFF}, make_signal(DBC_MOTOROLA, 3, 8)), 0xF0u);
  EXPECT_EQ(vxcli_dbc_extract_raw(nullptr, 8, 0, 8, DBC_INTEL, 0), 0u);
  EXPECT_EQ(vxcli_dbc_extract_raw(ramp.data(), 8, 0, 65, DBC_INTEL, 0), 0u);
  EXPECT_EQ(vxcli_dbc_extract_raw(ramp.data(), 65, 0, 8, DBC_INTEL, 0), 0u);
  EXPECT_EQ(vxcli_dbc_extract_raw(ramp.data(), 8, 0, 8, DBC_MOTOROLA, 600), 0u);
}

TEST(DbcCodec, ScalingAndSignExtension) {
  EXPECT_EQ(vxcli_dbc_raw_to_physical(0xFF, true, 8, 1, 0), -1);
  EXPECT_EQ(vxcli_dbc_raw_to_physical(0xFF, false, 8, 1, 0), 255);
  EXPECT_EQ(vxcli_dbc_raw_to_physical(0x800, true, 12, 0.5, 10), -2048 * 0.5 + 10);
  EXPECT_EQ(vxcli_dbc_raw_to_physical(~0ull, true, 64, 1, 0), -1);
  // 64-bit raws always convert as two's complement, even for unsigned signals.
  EXPECT_EQ(vxcli_dbc_raw_to_physical(~0ull, false, 64, 1, 0), -1);
  EXPECT_EQ(vxcli_dbc_raw_to_physical(0x7F, true, 8, -0.02, 0), 127 * -0.02);
}

TEST(DbcCodec, InsertionRoundTripsAndLeavesNeighboursAlone) {
  std::mt19937_64 random(7);
  for (int round = 0; round < 2000; round++) {
    ByteOrder order = round % 2 ? DBC_INTEL : DBC_MOTOROLA;
    uint16_t length = uint16_t(1 + random() % 64);
    uint16_t start = uint16_t(random() % 512);
    Signal s = make_signal(order, start, length);
    std::vector<uint8_t> data(64);
    for (uint8_t& b : data) b = uint8_t(random());
    std::vector<uint8_t> before = data;
    uint64_t raw = random();
    uint64_t masked = length == 64 ? raw : raw & ((1ull << length) - 1);
    vxcli_dbc_insert_raw(data.data(), data.size(), order == DBC_INTEL ? start : s.getLastBit(),
                         length, order, start, raw);
    // The same bits written over a zero buffer mark what the signal covers.
    std::vector<uint8_t> covered(64);
    vxcli_dbc_insert_raw(covered.data(), covered.size(), order == DBC_INTEL ? start : s.getLastBit(),
                         length, order, start, ~0ull);
    uint64_t expected = masked;
    size_t bits = 0;
    for (size_t i = 0; i < 64; i++) {
      EXPECT_EQ(data[i] & ~covered[i], before[i] & ~covered[i]) << "byte " << i;
      bits += size_t(__builtin_popcount(covered[i]));
    }
    if (bits == length) {
      EXPECT_EQ(extract(data, s), expected) << "start " << start << " length " << length;
    } else {  // only the part that lies inside the payload can come back
      EXPECT_LT(bits, length);
    }
  }
}

TEST(DbcCodec, EncodingRoundsAwayFromZeroAndWraps) {
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 16, false, 0.5), 100.4), 201u);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 16, false, 0.5), 100.25), 201u);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8, true), -1), 0xFFu);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8, true), -2.5), 0xFDu);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8), 300), 0x2Cu);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 16, false, 0.1, -40), 20), 600u);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 64), 1.8e19),
            uint64_t(1.8e19));
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8, false, 0), 5), 0u);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8), NAN), 0u);
  EXPECT_EQ(vxcli_dbc_physical_to_raw(make_signal(DBC_INTEL, 0, 8), 1e300), 0xFFu);
}

std::vector<Message> parse_messages(const std::string& text) {
  std::istringstream in(text);
  return DBCIterator(in).messages();
}

TEST(DbcCodec, MessageSelectors) {
  std::vector<Message> messages = parse_messages(
      "BO_ 256 Hex100: 8 N\n\nBO_ 100 Dec100: 8 N\n\nBO_ 26 Hex1A: 8 N\n\n"
      "BO_ 2364540158 Ext: 8 N\n\nBO_ 5 0xZZ: 8 N\n\nBO_ 7 BEEF: 8 N\n\nBO_ 3000 Big: 8 N\n\n");
  ASSERT_EQ(messages.size(), 7u);
  auto name_of = [&](const char* selector) {
    const Message* m = vxcli_dbc_find_message(messages, selector);
    return m ? m->name : std::string("<none>");
  };
  testing::internal::CaptureStderr();
  EXPECT_EQ(name_of("100"), "Dec100");
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "NOTE: --message=100 parsed as decimal (100). Use 0x prefix for hex.\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(name_of("3000"), "Big");
  EXPECT_EQ(name_of("0x100"), "Hex100");
  EXPECT_EQ(name_of("0X64"), "Dec100");
  EXPECT_EQ(name_of("1A"), "Hex1A");
  EXPECT_EQ(name_of("0x0CF004FE"), "Ext");  // bit 31 ignored
  EXPECT_EQ(name_of("0xZZ"), "0xZZ");      // not hex: a name
  EXPECT_EQ(name_of("BEEF"), "BEEF");      // hex 0xBEEF matches nothing: a name
  EXPECT_EQ(name_of("Hex100"), "Hex100");
  EXPECT_EQ(name_of("0x999"), "<none>");
  EXPECT_EQ(name_of("-5"), "<none>");
  EXPECT_EQ(name_of(""), "<none>");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

  // The indexed lookup of a loaded file answers the same way.
  DbcLoadedFile file;
  std::istringstream in("BO_ 256 A: 8 N\n\nBO_ 256 B: 8 N\n\nBO_ 2147483905 C: 8 N\n\n");
  file.dbc.init(in);
  vxcli_dbc_index_file(file);
  EXPECT_EQ(vxcli_dbc_find_message(file, "0x100")->name, "A");
  EXPECT_EQ(vxcli_dbc_find_message(file, "0x101")->name, "C");
  EXPECT_EQ(vxcli_dbc_find_message(file, "B")->name, "B");
}

const char kMuxDbc[] =
    "BO_ 1 Mux: 8 N\n"
    " SG_ Sel M : 0|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ A m1 : 8|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ B m2 : 8|8@1- (1,0) [0|0] \"\" N\n"
    " SG_ C : 16|16@1+ (0.5,0) [0|0] \"\xB0" "C\" N\n"
    "\n"
    "BO_ 2 NoSwitch: 8 N\n"
    " SG_ Lonely m0 : 8|8@1+ (1,0) [0|0] \"\" N\n"
    " SG_ Plain : 0|8@1+ (1,0) [0|0] \"\" N\n";

TEST(DbcCodec, MultiplexedSignalsFollowTheSwitch) {
  std::vector<Message> messages = parse_messages(kMuxDbc);
  ASSERT_EQ(messages.size(), 2u);
  DbcSignalValue values[8];
  const uint8_t sel2[] = {2, 0xFE, 4, 0};
  size_t n = vxcli_dbc_decode_message(messages[0], sel2, sizeof sel2, values, 8);
  ASSERT_EQ(n, 3u);
  EXPECT_EQ(values[0].signal->name, "Sel");
  EXPECT_EQ(values[1].signal->name, "B");
  EXPECT_EQ(values[1].physical, -2);
  EXPECT_EQ(values[2].physical, 2);
  const uint8_t sel7[] = {7};
  EXPECT_EQ(vxcli_dbc_decode_message(messages[0], sel7, 1, values, 8), 2u);
  EXPECT_FALSE(vxcli_dbc_signal_is_active(messages[0], messages[0].signals[1], sel7, 1));
  // Without a switch a multiplexed signal is never decoded.
  const uint8_t zero[8] = {};
  n = vxcli_dbc_decode_message(messages[1], zero, 8, values, 8);
  ASSERT_EQ(n, 1u);
  EXPECT_EQ(values[0].signal->name, "Plain");
}

TEST(DbcCodec, DecodeJsonIsExactAndBounded) {
  std::vector<Message> messages = parse_messages(kMuxDbc);
  const uint8_t data[] = {1, 0x05, 0x10, 0x00};
  char out[4096];
  ASSERT_EQ(vxcli_dbc_message_decode_json(messages[0], data, sizeof data, out, sizeof out), 0);
  EXPECT_STREQ(out,
               "{\"message\":\"Mux\",\"id\":\"0x1\",\"extended\":false,\"fd\":false,"
               "\"brs\":false,\"signals\":{\"Sel\":{\"raw\":1,\"physical\":1,\"unit\":\"\"},"
               "\"A\":{\"raw\":5,\"physical\":5,\"unit\":\"\"},"
               "\"C\":{\"raw\":16,\"physical\":8,\"unit\":\"\xC2\xB0" "C\"}}}");
  // A small buffer drops whole signals once less than 128 bytes remain but
  // stays one valid document.
  for (size_t size : {150u, 200u, 260u, 300u}) {
    std::vector<char> small(size);
    ASSERT_EQ(vxcli_dbc_message_decode_json(messages[0], data, sizeof data, small.data(), size), 0);
    std::string text = small.data();
    EXPECT_LT(text.size(), size);
    vxcli_json_token tokens[64];
    EXPECT_GT(vxcli_json_parse(text.c_str(), tokens, 64), 0) << text;
  }
  EXPECT_EQ(vxcli_dbc_message_decode_json(messages[0], data, sizeof data, out, 40), -3);
}

// ---- agreement with an independent decoder on the shared real files ----

// Walks the bits one at a time the way the file format describes them.
double reference_physical(const Signal& s, const std::vector<uint8_t>& data, uint64_t* raw_out) {
  uint64_t raw = 0;
  int position = s.startBit;
  for (int i = 0; i < s.length; i++) {
    int bit = position >= 0 && size_t(position / 8) < data.size()
                  ? (data[size_t(position / 8)] >> (position % 8)) & 1
                  : 0;
    if (s.order == DBC_INTEL) {
      raw |= uint64_t(bit) << i;
      position++;
    } else {
      raw = (raw << 1) | uint64_t(bit);
      position = position % 8 == 0 ? position + 15 : position - 1;
    }
  }
  *raw_out = raw;
  int64_t value;
  if (s.length == 64) value = int64_t(raw);  // 64-bit raws read as two's complement
  else if (s.sign && (raw >> (s.length - 1)) & 1) value = int64_t(raw) - (int64_t(1) << s.length);
  else value = int64_t(raw);
  return double(value) * s.factor + s.offset;
}

TEST(DbcCodec, RealFilesAgreeWithBitByBitDecoder) {
  std::mt19937 random(2024);
  size_t checked = 0;
  for (const char* name :
       {"toyota_prius_2010_pt.dbc", "_honda_common.dbc", "_hyundai_canfd_common.dbc",
        "tesla_can.dbc", "gm_global_a_lowspeed_1818125.dbc", "vw_mqbevo.dbc",
        "ford_lincoln_base_pt.dbc", "psa_aee2010_r3.dbc", "ESR.dbc", "vehicle.dbc", "abs.dbc",
        "j1939.dbc"}) {
    SCOPED_TRACE(name);
    DBCIterator dbc(vxtest::testdata(std::string("dbc/") + name));
    for (const Message& m : dbc) {
      std::vector<DbcSignalValue> values(m.signals.size());
      for (int frame = 0; frame < 4; frame++) {
        // Payloads of the message size, and shorter ones whose missing bytes read as zero.
        size_t length = std::min<size_t>(m.size, 64);
        if (frame == 3) length /= 2;
        std::vector<uint8_t> data(length);
        for (uint8_t& b : data) b = uint8_t(random());
        size_t n = vxcli_dbc_decode_message(m, data.data(), data.size(), values.data(),
                                            values.size());
        std::vector<char> text(65536);
        ASSERT_EQ(vxcli_dbc_message_decode_json(m, data.data(), data.size(), text.data(),
                                                text.size()), 0);
        std::string json = text.data();
        size_t k = 0;
        const Signal* mux = nullptr;
        for (const Signal& s : m.signals)
          if (s.multiplexor == DBC_MULTIPLEXOR && !mux) mux = &s;
        for (const Signal& s : m.signals) {
          if (s.multiplexor == DBC_MULTIPLEXED) {
            uint64_t selector = 0;
            if (!mux) continue;
            reference_physical(*mux, data, &selector);
            if (selector != uint64_t(s.multiplexNum)) continue;
          }
          ASSERT_LT(k, n) << m.name << "." << s.name;
          uint64_t raw = 0;
          double expected = reference_physical(s, data, &raw);
          EXPECT_EQ(values[k].signal, &s);
          EXPECT_EQ(values[k].raw, raw) << m.name << "." << s.name;
          EXPECT_DOUBLE_EQ(values[k].physical, expected) << m.name << "." << s.name;
          // The JSON object prints each value as printf's %.10g would.
          char member[256];
          snprintf(member, sizeof member, "\"%s\":{\"raw\":%llu,\"physical\":%.10g,",
                   s.name.c_str(), static_cast<unsigned long long>(raw), values[k].physical);
          EXPECT_NE(json.find(member), std::string::npos) << member;
          k++;
          checked++;
        }
        EXPECT_EQ(k, n) << m.name;
      }
    }
  }
  EXPECT_GT(checked, 30000u);
}

TEST(DbcCodec, RealSignalsSurviveEncodeThenDecode) {
  DBCIterator dbc(vxtest::testdata("dbc/tesla_can.dbc"));
  std::mt19937 random(5);
  for (const Message& m : dbc) {
    std::vector<std::string> names;
    std::vector<double> physical;
    // One value per non-overlapping signal: plain signals and the switch.
    for (const Signal& s : m.signals) {
      if (s.multiplexor == DBC_MULTIPLEXED || s.length > 52) continue;
      uint64_t raw = random() & ((1ull << std::min<int>(s.length, 31)) - 1);
      names.push_back(s.name);
      physical.push_back(vxcli_dbc_raw_to_physical(raw, s.sign, s.length, s.factor, s.offset));
    }
    std::vector<const char*> pointers;
    for (const std::string& n : names) pointers.push_back(n.c_str());
    uint8_t buffer[64];
    uint32_t length = 0;
    vxcli_dbc_encode_message(m, int(names.size()), pointers.data(), physical.data(), buffer,
                             &length);
    std::vector<DbcSignalValue> values(m.signals.size());
    size_t n = vxcli_dbc_decode_message(m, buffer, length, values.data(), values.size());
    for (size_t i = 0; i < n; i++) {
      for (size_t j = 0; j < names.size(); j++) {
        if (names[j] != values[i].signal->name) continue;
        EXPECT_NEAR(values[i].physical, physical[j], std::fabs(values[i].signal->factor) / 2)
            << m.name << "." << names[j];
      }
    }
  }
}

}  // namespace
