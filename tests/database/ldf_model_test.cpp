// LDF reader: real files, grammar, validation order, payload and checksum rules.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "database/inspect.h"
#include "database/ldf_model.h"
#include "vxtest.h"

namespace {

LdfModel load(const std::string& name) {
  LdfModel model;
  std::string error;
  EXPECT_EQ(parse_ldf(vxtest::testdata("ldf/" + name).c_str(), model, error), 0) << error;
  return model;
}

std::string payload_text(const LdfModel& model, const LdfFrame& frame) {
  uint8_t payload[8];
  frame_initial_payload(model, frame, payload);
  std::string out;
  for (int i = 0; i < frame.size; i++) out += ldf_format(i ? " %02X" : "%02X", payload[i]);
  return out;
}

struct FrameExpect {
  const char* name;
  const char* type;
  int64_t id;
  const char* publisher;
  int64_t size;
  const char* checksum;
  const char* initial;  // null: not checked
};

void expect_frames(const LdfModel& model, const std::vector<FrameExpect>& expected) {
  for (const FrameExpect& e : expected) {
    const LdfFrame* frame = find_frame(model, e.name);
    ASSERT_NE(frame, nullptr) << e.name;
    EXPECT_EQ(frame->type, e.type) << e.name;
    EXPECT_EQ(frame->id, e.id) << e.name;
    EXPECT_EQ(frame->publisher, e.publisher) << e.name;
    EXPECT_EQ(frame->size, e.size) << e.name;
    EXPECT_STREQ(checksum_name(model, *frame), e.checksum) << e.name;
    if (e.initial) {
      EXPECT_EQ(payload_text(model, *frame), e.initial) << e.name;
    }
  }
}

std::vector<std::pair<std::string, size_t>> schedule_sizes(const LdfModel& model) {
  std::vector<std::pair<std::string, size_t>> out;
  for (const LdfSchedule& s : model.schedules) out.emplace_back(s.name, s.entries.size());
  return out;
}

using Sizes = std::vector<std::pair<std::string, size_t>>;

void expect_cluster(const LdfModel& m, const char* version, const char* master, double time_base,
                    double jitter, size_t nodes, size_t signals, size_t frames) {
  EXPECT_EQ(m.protocol_version, version);
  EXPECT_EQ(m.speed_bps, 19200);
  EXPECT_EQ(m.master, master);
  ASSERT_FALSE(m.nodes.empty());
  EXPECT_EQ(m.nodes[0].name, master);
  EXPECT_DOUBLE_EQ(m.nodes[0].time_base_ms, time_base);
  EXPECT_DOUBLE_EQ(m.nodes[0].jitter_ms, jitter);
  EXPECT_EQ(m.nodes.size(), nodes);
  EXPECT_EQ(m.signals.size(), signals);
  EXPECT_EQ(m.frames.size(), frames);
}

TEST(LdfRealFiles, Lin13DerivesSizesFromIdentifiers) {
  LdfModel m = load("lin13.ldf");
  expect_cluster(m, "1.3", "CEM", 5, 0.1, 3, 49, 7);
  expect_frames(m, {
      {"VL1_CEM_Frm1", "unconditional", 32, "CEM", 3, "classic", "00 00 00"},
      {"VL1_CEM_Frm2", "unconditional", 48, "CEM", 8, "classic", nullptr},
      {"VL1_LSM_Frm2", "unconditional", 49, "LSM", 6, "classic", nullptr},
      {"VL1_CPM_Frm2", "unconditional", 34, "CPM", 4, "classic", nullptr},
      {"VL1_CPM_Frm3", "unconditional", 51, "CPM", 8, "classic", nullptr},
  });
  EXPECT_EQ(schedule_sizes(m), (Sizes{{"VL1_ST1", 4}, {"VL1_ST2", 9}}));
  const LdfSchedule* st2 = find_schedule(m, "VL1_ST2");
  EXPECT_EQ(st2->entries[3].command, "VL1_LSM_Frm2");
  EXPECT_DOUBLE_EQ(st2->entries[3].delay_ms, 20);
  const LdfSignal* key = find_signal(m, "IgnitionKeyPos");
  EXPECT_EQ(key->publisher, "CEM");
  EXPECT_EQ(key->subscribers, (std::vector<std::string>{"LSM", "CPM"}));
}

TEST(LdfRealFiles, Lin22ConfigurationCommandsAndEventTriggeredFrame) {
  LdfModel m = load("lin22.ldf");
  expect_cluster(m, "2.2", "CEM", 5, 0.1, 3, 6, 6);
  EXPECT_EQ(m.language_version, "2.2");
  expect_frames(m, {
      {"CEM_Frm1", "unconditional", 1, "CEM", 1, "enhanced", "00"},
      {"LSM_Frm1", "unconditional", 2, "LSM", 2, "enhanced", "00 00"},
      {"Node_Status_Event", "event-triggered", 6, "", 2, "enhanced", nullptr},
  });
  const LdfFrame* event = find_frame(m, "Node_Status_Event");
  EXPECT_EQ(event->collision_schedule, "Collision_resolver");
  EXPECT_EQ(event->referenced, (std::vector<std::string>{"RSM_Frm1", "LSM_Frm1"}));
  EXPECT_EQ(schedule_sizes(m), (Sizes{{"Configuration_Schedule", 10},
                                      {"Normal_Schedule", 4},
                                      {"MRF_schedule", 1},
                                      {"SRF_schedule", 1},
                                      {"Collision_resolver", 8}}));
  const LdfSchedule* config = find_schedule(m, "Configuration_Schedule");
  for (const LdfScheduleEntry& e : config->entries) EXPECT_EQ(e.kind, "configuration");
  EXPECT_EQ(config->entries[0].command, "AssignNAD {LSM}");
  EXPECT_EQ(config->entries[3].command, "ConditionalChangeNAD {0x17, 0, 0x20, 0xFF, 0x00, 0x18}");
  EXPECT_EQ(config->entries[6].command, "AssignFrameId {RSM, CEM_Frm1}");
  // MasterReq/SlaveResp resolve without a Diagnostic_frames section.
  const LdfFrame* req = schedule_entry_frame(m, find_schedule(m, "MRF_schedule")->entries[0]);
  const LdfFrame* resp = schedule_entry_frame(m, find_schedule(m, "SRF_schedule")->entries[0]);
  ASSERT_TRUE(req && resp);
  EXPECT_EQ(req->id, 0x3C);
  EXPECT_EQ(resp->id, 0x3D);
  EXPECT_STREQ(checksum_name(m, *req), "classic");
  EXPECT_STREQ(frame_operation(m, *req), "master-write");
  EXPECT_STREQ(frame_operation(m, *resp), "master-read");
}

TEST(LdfRealFiles, Iso17987ArraysDiagnosticsAndFlagStatement) {
  LdfModel m = load("iso17987.ldf");
  expect_cluster(m, "ISO17987:2015", "VectorMasterNode", 1, 0.1, 3, 26, 12);
  expect_frames(m, {
      {"MotorControl", "unconditional", 4, "VectorMasterNode", 2, "enhanced", "10 00"},
      {"MotorQuery", "unconditional", 5, "VectorMasterNode", 5, "enhanced", "05 04 03 02 01"},
      {"MotorState_Cycl", "unconditional", 0, "VectorSlave_ISO", 6, "enhanced", nullptr},
      {"ETF_MotorState_Cycl", "event-triggered", 55, "", 6, "enhanced", nullptr},
      {"ETF_MotorState_Event", "event-triggered", 56, "", 3, "enhanced", nullptr},
      {"MasterReq", "diagnostic", 0x3C, "VectorMasterNode", 8, "classic", nullptr},
      {"SlaveResp", "diagnostic", 0x3D, "", 8, "classic", nullptr},
  });
  EXPECT_EQ(find_signal(m, "sig_MotorQuery1")->initial, "{5, 4, 3, 2, 1}");
  EXPECT_TRUE(find_signal(m, "MasterReqB0")->diagnostic);
  EXPECT_EQ(find_signal(m, "MasterReqB0")->publisher, "");
  EXPECT_EQ(schedule_sizes(m), (Sizes{{"InitTable", 8},
                                      {"ETF_Table", 2},
                                      {"CollisionResolver1", 2},
                                      {"CollisionResolver2", 2},
                                      {"Table4", 2}}));
  const LdfSchedule* table4 = find_schedule(m, "Table4");
  EXPECT_EQ(table4->entries[0].kind, "configuration");
  EXPECT_EQ(table4->entries[1].kind, "frame");
  EXPECT_DOUBLE_EQ(find_schedule(m, "InitTable")->entries[0].delay_ms, 7);
}

TEST(LdfRealFiles, SporadicFrameTakesMasterAndReferencedSize) {
  LdfModel m = load("ldf_with_sporadic_frames.ldf");
  expect_cluster(m, "2.2", "MASTER", 10, 0, 2, 3, 2);
  expect_frames(m, {
      {"REQ_POST_RUN", "unconditional", 30, "MASTER", 4, "enhanced", "00 00 00 00"},
      {"SF_REQ_POST_RUN", "sporadic", -1, "MASTER", 4, "enhanced", nullptr},
  });
  EXPECT_EQ(frame_operation(m, *find_frame(m, "SF_REQ_POST_RUN")), nullptr);
  EXPECT_EQ(schedule_sizes(m), (Sizes{{"POST_RUN", 1}}));
}

TEST(LdfRealFiles, J3068NetworkWithCrlfAndOverlappingMappings) {
  LdfModel m = load("J3068-2.ldf");
  expect_cluster(m, "2.1", "EVSE_Master", 1, 0, 3, 154, 24);
  size_t diagnostic = 0;
  for (const LdfSignal& s : m.signals) diagnostic += s.diagnostic;
  EXPECT_EQ(diagnostic, 16u);
  expect_frames(m, {
      {"SeVersionList", "unconditional", 0, "EVSE_Master", 8, "enhanced",
       "FF 00 00 FF FF FF FF FF"},
      {"EvVersionList", "unconditional", 1, "VehicleAC_charger_slave", 8, "enhanced",
       "FF 80 00 FF FF FF FF FF"},
      {"EvModeCtrl", "unconditional", 0x15, "VehicleAC_charger_slave", 8, "enhanced", nullptr},
      {"SeModeCtrl", "unconditional", 0x16, "EVSE_Master", 8, "enhanced",
       "FE FF 0F FF FF 00 00 FF"},
      {"SeTargets1", "unconditional", 0x19, "EVSE_Master", 8, "enhanced", nullptr},
      {"MasterReq", "diagnostic", 0x3C, "EVSE_Master", 8, "classic", nullptr},
      {"SlaveResp", "diagnostic", 0x3D, "", 8, "classic", nullptr},
  });
  EXPECT_EQ(schedule_sizes(m),
            (Sizes{{"Ver", 4}, {"Init", 9}, {"Op", 5}, {"Op3", 7}, {"Op252", 21}}));
  const LdfSchedule* op = find_schedule(m, "Op");
  std::vector<double> delays;
  for (const LdfScheduleEntry& e : op->entries) delays.push_back(e.delay_ms);
  EXPECT_EQ(delays, (std::vector<double>{10, 11, 10, 11, 10}));
}

TEST(LdfRealFiles, InspectReportsFramesAndSignals) {
  struct Case { const char* file; uint32_t frames, signals; };
  for (Case c : {Case{"lin13.ldf", 7, 49}, Case{"lin22.ldf", 6, 6}, Case{"iso17987.ldf", 12, 26},
                 Case{"ldf_with_sporadic_frames.ldf", 2, 3}, Case{"J3068-2.ldf", 24, 154}}) {
    uint32_t items = 99, members = 99;
    char error[256] = "x";
    std::string path = vxtest::testdata(std::string("ldf/") + c.file);
    EXPECT_EQ(vxcli_ldf_inspect_file(path.c_str(), &items, &members, error, sizeof error), 0)
        << c.file << ": " << error;
    EXPECT_EQ(items, c.frames) << c.file;
    EXPECT_EQ(members, c.signals) << c.file;
  }
  char error[256];
  EXPECT_EQ(vxcli_ldf_inspect_file("/nonexistent/x.ldf", nullptr, nullptr, error, sizeof error), -1);
  EXPECT_STREQ(error, "cannot open LDF file");
  // Truncated to the caller's buffer, never overrun.
  char tiny[8];
  EXPECT_EQ(vxcli_ldf_inspect_file("/nonexistent/x.ldf", nullptr, nullptr, tiny, sizeof tiny), -1);
  EXPECT_STREQ(tiny, "cannot ");
}

// A small valid cluster; the tests below break one thing at a time.
const char* const kBase = R"(LIN_description_file;
LIN_protocol_version = "2.1";
LIN_language_version = "2.1";
LIN_speed = 19.2 kbps;
Nodes { Master: M, 5 ms, 0.1 ms; Slaves: S1, S2; }
Signals {
  A: 8, 0, M, S1;
  B: 16, {0x12, 0x34}, M, S1, S2;
  C: 4, 3, S1, M;
}
Frames {
  F1: 0x10, M, 4 { A, 0; B, 8; }
  F2: 0x11, S1, 1 { C, 0; }
}
Schedule_tables {
  T { F1 delay 10.2 ms; F2 delay 20 ms; }
}
)";

std::string edit(std::string text, const std::string& from, const std::string& to) {
  size_t at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  if (at != std::string::npos) text.replace(at, from.size(), to);
  return text;
}

// The error of parsing text, or "" when it is accepted.
std::string parse_error(const std::string& text) {
  LdfModel model;
  std::string error;
  return parse_ldf_text(text, "test.ldf", model, error) == 0 ? "" : error;
}

TEST(LdfGrammar, BaseClusterAndSpeedUnits) {
  LdfModel m;
  std::string error;
  ASSERT_EQ(parse_ldf_text(kBase, "base.ldf", m, error), 0) << error;
  EXPECT_EQ(m.speed_bps, 19200);
  EXPECT_EQ(m.path, "base.ldf");
  ASSERT_EQ(parse_ldf_text(edit(kBase, "19.2 kbps", "10417 bps"), "x", m, error), 0);
  EXPECT_EQ(m.speed_bps, 10417);
  ASSERT_EQ(parse_ldf_text(edit(kBase, "19.2 kbps", "10.4166 kbps"), "x", m, error), 0);
  EXPECT_EQ(m.speed_bps, 10417);  // rounded to nearest
  ASSERT_EQ(parse_ldf_text(edit(kBase, "19.2 kbps", "9.6kbps"), "x", m, error), 0);
  EXPECT_EQ(m.speed_bps, 9600);
  EXPECT_EQ(parse_error(edit(kBase, "19.2 kbps", "19200 baud")),
            "LIN_speed must use bps or kbps at line 4");
  EXPECT_EQ(parse_error(edit(kBase, "19.2 kbps", "-1 kbps")), "invalid LIN_speed at line 4");
  EXPECT_EQ(parse_error(edit(kBase, "19.2 kbps", "fast kbps")), "expected a number at line 4");
  EXPECT_EQ(parse_error(edit(kBase, "LIN_speed = 19.2 kbps;\n", "")),
            "missing LIN protocol version or speed");
}

TEST(LdfGrammar, UnknownStatementsAreSkipped) {
  std::string text = edit(kBase, "Nodes {",
                          "Channel_name = \"DB\";\nLIN_sig_byte_order_big_endian;\n"
                          "Odd = 1, {2, {3}};\nNode_attributes { S1 { x = 1; y { z; } } }\n"
                          "Nodes {");
  EXPECT_EQ(parse_error(text), "");
  EXPECT_EQ(parse_error(edit(kBase, "Nodes {", "Stray word\nNodes {")),
            "expected '=' or '{' after Stray at line 5");
  EXPECT_EQ(parse_error(std::string(kBase) + "Extra { a { b; }\n"), "unterminated section at line 18");
  // Comments may hold anything; the master line may carry header length and tolerance.
  EXPECT_EQ(parse_error(edit(kBase, "Slaves:", "/* a { \" } */ Slaves: // } ;\n")), "");
  EXPECT_EQ(parse_error(edit(kBase, "0.1 ms;", "0.1 ms, 48 bits, 40 %;")), "");
}

TEST(LdfGrammar, LexicalAndSyntaxErrors) {
  EXPECT_EQ(parse_error(""), "missing LIN_description_file header");
  EXPECT_EQ(parse_error(edit(kBase, "LIN_description_file;", "LIN_description;")),
            "missing LIN_description_file header at line 1");
  EXPECT_EQ(parse_error(edit(kBase, "\"2.1\";\nLIN_lang", "\"2.1;\nLIN_lang")),
            "unterminated string at line 2");
  EXPECT_EQ(parse_error(std::string(kBase) + "/* open"), "unterminated block comment");
  EXPECT_EQ(parse_error(edit(kBase, "A: 8", "A# 8")), "unexpected character at line 7");
  EXPECT_EQ(parse_error(edit(kBase, "Master:", "Boss:")), "unknown Nodes entry Boss at line 5");
  EXPECT_EQ(parse_error(edit(kBase, "5 ms, 0.1", "5 s, 0.1")), "expected unit 'ms' at line 5");
  EXPECT_EQ(parse_error(edit(kBase, "0x10, M", "ten, M")), "expected an integer at line 12");
  EXPECT_EQ(parse_error(edit(kBase, "F1: 0x10", "F1 0x10")), "expected ':' at line 12");
  EXPECT_EQ(parse_error(edit(kBase, "F1 delay 10.2 ms", "F1 10.2 ms")),
            "schedule entry has no delay at line 16");
  EXPECT_EQ(parse_error(edit(kBase, "A: 8, 0,", "A: 8, ,")), "invalid signal initial value at line 7");
  for (const char* bad : {"{}", "{256}", "{1, 2, 3, 4, 5, 6, 7, 8, 9}", "{1 2}", "-1", "abc", "\"0\""})
    EXPECT_EQ(parse_error(edit(kBase, "{0x12, 0x34}", bad)),
              "invalid signal initial value at line 8") << bad;
}

TEST(LdfValidation, EachRuleNamesTheObject) {
  struct Case { const char* from; const char* to; const char* message; };
  const Case cases[] = {
      {"Nodes { Master: M, 5 ms, 0.1 ms; ", "Nodes { ", "LDF has no master node"},
      {"LIN_protocol_version = \"2.1\";", "", "missing LIN protocol version or speed"},
      {"Slaves: S1, S2;", "Slaves: S1, S1;", "duplicate node: S1"},
      {"C: 4, 3, S1, M;", "A: 4, 3, S1, M;", "duplicate signal: A"},
      {"C: 4,", "C: 0,", "invalid signal size: C"},
      {"C: 4,", "C: 65,", "invalid signal size: C"},
      {"C: 4, 3, S1", "C: 4, 3, S9", "unknown signal publisher: C"},
      {"C: 4, 3, S1, M;", "C: 4, 3, S1, M, X;", "unknown signal subscriber: C"},
      {"F2: 0x11", "F1: 0x11", "duplicate frame: F1"},
      {"F2: 0x11", "F2: 0x40", "invalid frame layout: F2"},
      {"S1, 1 {", "S1, 9 {", "invalid frame layout: F2"},
      {"S1, 1 {", "S1, 0 {", "invalid frame layout: F2"},
      {"F2: 0x11", "F2: 0x10", "duplicate frame ID in LDF: F2"},
      {"F2: 0x11, S1", "F2: 0x11, S7", "unknown frame publisher: F2"},
      {"{ C, 0; }", "{ D, 0; }", "unknown signal D in frame F2"},
      {"B, 8; }", "B, 24; }", "signal does not fit frame: F1"},
      {"A, 0;", "A, -1;", "signal does not fit frame: F1"},
      {"A, 0;", "A, 0x7FFFFFFFFFFFFFFF;", "signal does not fit frame: F1"},
      {"T { F1", "T { F9", "unknown schedule command: F9"},
      {"T { F1", "T { Bogus {1} delay 5 ms; F1", "unknown schedule command: Bogus {1}"},
      {"delay 20 ms", "delay 0 ms", "invalid delay in schedule T"},
      {"delay 20 ms", "delay 70000 ms", "invalid delay in schedule T"},
      {"T { F1 delay 10.2 ms; F2 delay 20 ms; }", "T { F1 delay 1 ms; } T { F2 delay 1 ms; }",
       "duplicate schedule: T"},
  };
  for (const Case& c : cases) EXPECT_EQ(parse_error(edit(kBase, c.from, c.to)), c.message) << c.to;

  std::string no_frames = edit(kBase, "  F1: 0x10, M, 4 { A, 0; B, 8; }\n  F2: 0x11, S1, 1 { C, 0; }\n", "");
  EXPECT_EQ(parse_error(edit(no_frames, "T { F1 delay 10.2 ms; F2 delay 20 ms; }", "")),
            "LDF contains no frames");
  // Earlier rules win: a duplicate node is reported before a duplicate signal.
  EXPECT_EQ(parse_error(edit(edit(kBase, "Slaves: S1, S2;", "Slaves: S1, S1;"), "C: 4, 3, S1, M;",
                             "A: 4, 3, S1, M;")),
            "duplicate node: S1");
}

TEST(LdfValidation, ReferencedFramesAndCollisionSchedules) {
  std::string base = std::string(kBase) +
                     "Event_triggered_frames { E: T, 0x20, F2; }\nSporadic_frames { SP: F1; }\n";
  EXPECT_EQ(parse_error(base), "");
  EXPECT_EQ(parse_error(edit(base, "0x20, F2;", "0x20, F9;")), "invalid referenced frame: E");
  EXPECT_EQ(parse_error(edit(base, "E: T,", "E: Q,")), "unknown collision schedule: E");
  EXPECT_EQ(parse_error(edit(base, "SP: F1;", "SP: F8;")), "invalid referenced frame: SP");
  // Event-triggered identifiers may repeat those of other frames; LIN 2.0 omits the table.
  EXPECT_EQ(parse_error(edit(base, "E: T, 0x20", "E: T, 0x11")), "");
  LdfModel m;
  std::string error;
  ASSERT_EQ(parse_ldf_text(edit(base, "E: T, 0x20", "E: 0x21"), "x", m, error), 0) << error;
  EXPECT_EQ(find_frame(m, "E")->id, 0x21);
  EXPECT_EQ(find_frame(m, "E")->collision_schedule, "");
}

TEST(LdfPayload, InitialValuesArePlacedBitByBit) {
  LdfModel m;
  std::string error;
  ASSERT_EQ(parse_ldf_text(kBase, "x", m, error), 0);
  EXPECT_EQ(payload_text(m, *find_frame(m, "F1")), "00 12 34 00");
  EXPECT_EQ(payload_text(m, *find_frame(m, "F2")), "03");
  // C-style bases; values wider than the signal are cut to its size; unaligned offsets.
  std::string text = edit(edit(kBase, "A: 8, 0,", "A: 8, 010,"), "C: 4, 3,", "C: 4, 0x1F,");
  text = edit(text, "{ C, 0; }", "{ C, 3; }");
  ASSERT_EQ(parse_ldf_text(text, "x", m, error), 0) << error;
  EXPECT_EQ(payload_text(m, *find_frame(m, "F1")), "08 12 34 00");
  EXPECT_EQ(payload_text(m, *find_frame(m, "F2")), "78");
  // A 64-bit signal fills the whole frame.
  text = edit(edit(kBase, "A: 8, 0,", "A: 64, 0xFFFFFFFFFFFFFFFF,"), "{ A, 0; B, 8; }", "{ A, 0; }");
  ASSERT_EQ(parse_ldf_text(edit(text, "M, 4 {", "M, 8 {"), "x", m, error), 0) << error;
  EXPECT_EQ(payload_text(m, *find_frame(m, "F1")), "FF FF FF FF FF FF FF FF");
}

TEST(LdfGrammar, Lin13SizeFollowsIdentifierOnlyInLin1x) {
  std::string frames = "Frames { A: 0x1F, M { } B: 0x20, M { } C: 0x2F, M { } D: 0x30, M { } }";
  std::string text = edit(edit(kBase, "\"2.1\";\nLIN_lang", "\"1.3\";\nLIN_lang"),
                          "Frames {\n", frames + "\nFrames {\n");
  LdfModel m;
  std::string error;
  ASSERT_EQ(parse_ldf_text(text, "x", m, error), 0) << error;
  EXPECT_EQ(find_frame(m, "A")->size, 2);
  EXPECT_EQ(find_frame(m, "B")->size, 4);
  EXPECT_EQ(find_frame(m, "C")->size, 4);
  EXPECT_EQ(find_frame(m, "D")->size, 8);
  EXPECT_EQ(parse_error(edit(kBase, "0x11, S1, 1 {", "0x11, S1 {")), "expected ',' at line 13");
}

TEST(LdfFile, SizeLimitAndMissingFile) {
  vxtest::Sandbox sandbox;
  std::string big = sandbox.write_file("big.ldf", std::string(0x400001, ' '));
  LdfModel m;
  std::string error;
  EXPECT_EQ(parse_ldf(big.c_str(), m, error), -1);
  EXPECT_EQ(error, "LDF file size is invalid");
  EXPECT_EQ(parse_ldf(sandbox.root().c_str(), m, error), -1);  // a directory cannot be read
  EXPECT_EQ(error, "cannot read LDF file");
  EXPECT_EQ(parse_ldf("", m, error), -1);
  EXPECT_EQ(error, "cannot open LDF file");
}

}  // namespace
