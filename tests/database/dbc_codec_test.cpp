#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
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
    Signal s = make_signal(round % 2 ? DBC_INTEL : DBC_MOTOROLA, uint16_t(random() % 512),
                           uint16_t(1 + random() % 64));
    uint32_t first = s.order == DBC_INTEL ? s.startBit : s.getLastBit();
    std::vector<uint8_t> data(64), before, covered(64);
    for (uint8_t& b : data) b = uint8_t(random());
    before = data;
    uint64_t raw = random();
    vxcli_dbc_insert_raw(data.data(), 64, first, s.length, s.order, s.startBit, raw);
    // The same bits written over a zero buffer mark what the signal covers.
    vxcli_dbc_insert_raw(covered.data(), 64, first, s.length, s.order, s.startBit, ~0ull);
    size_t bits = 0;
    for (size_t i = 0; i < 64; i++) {
      EXPECT_EQ(data[i] & ~covered[i], before[i] & ~covered[i]) << "byte " << i;
      bits += size_t(__builtin_popcount(covered[i]));
    }
    // Signals running off the end of the payload keep only their inside part.
    if (bits == s.length)
      EXPECT_EQ(extract(data, s), s.length == 64 ? raw : raw & ((1ull << s.length) - 1));
    else
      EXPECT_LT(bits, s.length);
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

// Physical values in the JSON object read exactly as printf's %.10g prints them.
TEST(DbcCodec, DecodeJsonNumbersMatchPrintf) {
  std::mt19937_64 random(11);
  const double factors[] = {1, 0.1, 0.01, 0.05, 1e-7, 0.0625, 3.0517578125e-05, -0.02, 1e-3};
  const double offsets[] = {0, -40, -163.84, 0.5};
  for (int i = 0; i < 3000; i++) {
    Message m = parse_messages("BO_ 1 M: 8 N\n SG_ V : 0|64@1- (1,0) [0|0] \"\" N\n")[0];
    m.signals[0].length = uint16_t(1 + random() % 64);
    m.signals[0].factor = factors[random() % 9];
    m.signals[0].offset = offsets[random() % 4];
    uint64_t bits = random();
    uint8_t data[8];
    memcpy(data, &bits, 8);
    DbcSignalValue value;
    ASSERT_EQ(vxcli_dbc_decode_message(m, data, 8, &value, 1), 1u);
    char out[512], member[128];
    ASSERT_EQ(vxcli_dbc_message_decode_json(m, data, 8, out, sizeof out), 0);
    snprintf(member, sizeof member, "\"physical\":%.10g,", value.physical);
    EXPECT_NE(strstr(out, member), nullptr) << out << " " << member;
  }
}

}  // namespace
