// The ldf command handlers in every output format.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/output.h"
#include "database/ldf.h"
#include "json/json.h"
#include "vxtest.h"

namespace {

struct Output {
  int rc = -1;
  std::string out;
  std::string err;
};

Output run(vxcli_handler handler, std::vector<std::string> words,
           uint32_t format = VXCLI_FORMAT_TEXT) {
  vxcli_config saved = g_config;
  g_config.format = format;
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  Output result;
  result.rc = handler((int)words.size(), argv.data());
  result.out = testing::internal::GetCapturedStdout();
  result.err = testing::internal::GetCapturedStderr();
  g_config = saved;
  return result;
}

std::string ldf(const std::string& name) { return "--ldf=" + vxtest::testdata("ldf/" + name); }

// Read access to one parsed JSON document.
class Json {
 public:
  explicit Json(const std::string& text) : text_(text), tokens_(20000) {
    count_ = vxcli_json_parse(text_.c_str(), tokens_.data(), (int)tokens_.size());
  }
  bool valid() const { return count_ > 0; }
  int member(int object, const char* key) const {
    return object < 0 ? -1 : vxcli_json_object_get(text_.c_str(), tokens_.data(), object, key);
  }
  int element(int array, int index) const {
    if (array < 0 || tokens_[array].type != VXCLI_JSON_ARRAY || index >= tokens_[array].size) return -1;
    int i = array + 1;
    while (index-- > 0) i = vxcli_json_next(tokens_.data(), i);
    return i;
  }
  int size(int index) const { return index < 0 ? -1 : tokens_[index].size; }
  // The token's text as written: strings without quotes, primitives as they are.
  std::string raw(int index) const {
    if (index < 0) return "<missing>";
    return text_.substr(tokens_[index].start, tokens_[index].end - tokens_[index].start);
  }
  std::string at(std::initializer_list<const char*> keys) const {
    int i = 0;
    for (const char* key : keys) i = member(i, key);
    return raw(i);
  }

 private:
  std::string text_;
  std::vector<vxcli_json_token> tokens_;
  int count_;
};

// Keeps the registry that selectors are resolved against inside a sandbox.
class LdfCommands : public testing::Test {
 protected:
  void SetUp() override {
    const char* old = getenv("VXCLI_STATE_DIR");
    had_state_ = old != nullptr;
    if (old) saved_state_ = old;
    setenv("VXCLI_STATE_DIR", sandbox_.path("state").c_str(), 1);
  }
  void TearDown() override {
    if (had_state_) setenv("VXCLI_STATE_DIR", saved_state_.c_str(), 1);
    else unsetenv("VXCLI_STATE_DIR");
  }
  vxtest::Sandbox sandbox_;
  bool had_state_ = false;
  std::string saved_state_;
};

TEST_F(LdfCommands, InspectionLinesOfLin22) {
  std::string file = ldf("lin22.ldf");
  Output o = run(vxcli_ldf_info_command, {file});
  EXPECT_EQ(o.rc, 0) << o.err;
  EXPECT_EQ(o.out, "LDF lin22: LIN 2.2, 19200 bps, master=CEM, nodes=3, signals=6, frames=6, schedules=5\n");

  o = run(vxcli_ldf_node_list_command, {file});
  EXPECT_EQ(o.out, "CEM                      master (cluster master)\n"
                   "LSM                      slave\n"
                   "RSM                      slave\n");
  o = run(vxcli_ldf_node_show_command, {"CEM", file});
  EXPECT_EQ(o.out, "CEM role=master time-base=5 ms jitter=0.10000000000000001 ms\n");

  o = run(vxcli_ldf_frame_list_command, {file, "--type=event-triggered"});
  EXPECT_EQ(o.out, "Node_Status_Event        event-triggered  0x06 publisher=- dlc=2\n");
  o = run(vxcli_ldf_frame_show_command, {"--ldf", vxtest::testdata("ldf/lin22.ldf"), "LSM_Frm2"});
  EXPECT_EQ(o.out, "LSM_Frm2 type=unconditional id=0x03 publisher=LSM dlc=1 signals=2\n");

  o = run(vxcli_ldf_signal_list_command, {file});
  EXPECT_EQ(o.out.substr(0, o.out.find('\n') + 1),
            "InternalLightsRequest    2 bits initial=0 publisher=CEM\n");
  o = run(vxcli_ldf_signal_show_command, {file, "InternalLightsRequest"});
  EXPECT_EQ(o.out, "InternalLightsRequest size=2 initial=0 publisher=CEM subscribers=2\n");

  o = run(vxcli_ldf_schedule_list_command, {file});
  EXPECT_EQ(o.out.substr(0, o.out.find('\n') + 1), "Configuration_Schedule   entries=10\n");
  o = run(vxcli_ldf_schedule_show_command, {"Normal_Schedule", file});
  EXPECT_EQ(o.out, "Normal_Schedule entries=4\n"
                   "  0: CEM_Frm1 delay=15 ms\n"
                   "  1: LSM_Frm2 delay=15 ms\n"
                   "  2: RSM_Frm2 delay=15 ms\n"
                   "  3: Node_Status_Event delay=10 ms\n");
}

TEST_F(LdfCommands, CsvRowsKeepTheirColumns) {
  Output o = run(vxcli_ldf_frame_list_command, {ldf("iso17987.ldf"), "--type=diagnostic"},
                 VXCLI_FORMAT_CSV);
  EXPECT_EQ(o.out, "name,type,id,publisher,dlc,checksum,operation\n"
                   "MasterReq,diagnostic,0x3C,VectorMasterNode,8,classic,master-write\n"
                   "SlaveResp,diagnostic,0x3D,,8,classic,master-read\n");
  o = run(vxcli_ldf_frame_list_command, {ldf("ldf_with_sporadic_frames.ldf")}, VXCLI_FORMAT_CSV);
  EXPECT_EQ(o.out, "name,type,id,publisher,dlc,checksum,operation\n"
                   "REQ_POST_RUN,unconditional,0x1E,MASTER,4,enhanced,master-write\n"
                   "SF_REQ_POST_RUN,sporadic,n/a,MASTER,4,enhanced,\n");
  // Array initial values contain commas and are quoted.
  o = run(vxcli_ldf_signal_list_command, {ldf("iso17987.ldf")}, VXCLI_FORMAT_CSV);
  EXPECT_NE(o.out.find("\nsig_MotorQuery1,40,\"{5, 4, 3, 2, 1}\",VectorMasterNode,false\n"),
            std::string::npos);
  EXPECT_NE(o.out.find("\nMasterReqB0,8,0,,true\n"), std::string::npos);
  o = run(vxcli_ldf_node_list_command, {ldf("lin13.ldf")}, VXCLI_FORMAT_CSV);
  EXPECT_EQ(o.out, "name,role,time_base_ms,jitter_ms\n"
                   "CEM,master,5,0.10000000000000001\nLSM,slave,0,0\nCPM,slave,0,0\n");
  o = run(vxcli_ldf_schedule_list_command, {ldf("J3068-2.ldf")}, VXCLI_FORMAT_CSV);
  EXPECT_EQ(o.out, "name,entry_count\nVer,4\nInit,9\nOp,5\nOp3,7\nOp252,21\n");
}

TEST_F(LdfCommands, JsonListsAreOneValidDocumentEach) {
  const vxcli_handler lists[] = {vxcli_ldf_info_command, vxcli_ldf_node_list_command,
                                 vxcli_ldf_frame_list_command, vxcli_ldf_signal_list_command,
                                 vxcli_ldf_schedule_list_command};
  for (const char* file : {"lin13.ldf", "lin22.ldf", "iso17987.ldf",
                           "ldf_with_sporadic_frames.ldf", "J3068-2.ldf"}) {
    for (vxcli_handler handler : lists) {
      for (uint32_t format : {VXCLI_FORMAT_JSON, VXCLI_FORMAT_JSONL}) {
        Output o = run(handler, {ldf(file)}, format);
        ASSERT_EQ(o.rc, 0) << file << o.out;
        ASSERT_EQ(o.out.back(), '\n');
        EXPECT_EQ(o.out.find('\n'), o.out.size() - 1) << file;
        Json doc(o.out);
        ASSERT_TRUE(doc.valid()) << file << ": " << o.out;
        EXPECT_EQ(doc.at({"status"}), "ok");
      }
    }
  }
  Json info(run(vxcli_ldf_info_command, {ldf("J3068-2.ldf")}, VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(info.at({"protocol_version"}), "2.1");
  EXPECT_EQ(info.at({"speed_bps"}), "19200");
  EXPECT_EQ(info.at({"master"}), "EVSE_Master");
  EXPECT_EQ(info.at({"counts", "signals"}), "154");
  EXPECT_EQ(info.at({"counts", "frames"}), "24");
  Json frames(run(vxcli_ldf_frame_list_command, {ldf("J3068-2.ldf"), "--type=unconditional"},
                  VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(frames.at({"count"}), "22");
}

TEST_F(LdfCommands, JsonObjectsCarryTheirFields) {
  Json frame(run(vxcli_ldf_frame_show_command, {"MotorQuery", ldf("iso17987.ldf")},
                 VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(frame.at({"frame", "id"}), "0x05");
  EXPECT_EQ(frame.at({"frame", "publisher"}), "VectorMasterNode");
  EXPECT_EQ(frame.at({"frame", "dlc"}), "5");
  EXPECT_EQ(frame.at({"frame", "checksum"}), "enhanced");
  EXPECT_EQ(frame.at({"frame", "operation"}), "master-write");
  EXPECT_EQ(frame.at({"frame", "initial_data"}), "05 04 03 02 01");
  int signals = frame.member(frame.member(0, "frame"), "signals");
  EXPECT_EQ(frame.raw(frame.member(frame.element(signals, 0), "name")), "sig_MotorQuery1");
  EXPECT_EQ(frame.raw(frame.member(frame.element(signals, 0), "start_bit")), "0");

  Json event(run(vxcli_ldf_frame_show_command, {"Node_Status_Event", ldf("lin22.ldf")},
                 VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(event.at({"frame", "publisher"}), "null");
  EXPECT_EQ(event.at({"frame", "operation"}), "null");
  EXPECT_EQ(event.at({"frame", "collision_schedule"}), "Collision_resolver");
  int refs = event.member(event.member(0, "frame"), "referenced_frames");
  EXPECT_EQ(event.size(refs), 2);
  EXPECT_EQ(event.raw(event.element(refs, 1)), "LSM_Frm1");

  Json signal(run(vxcli_ldf_signal_show_command, {"SlaveRespB3", ldf("iso17987.ldf")},
                  VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(signal.at({"signal", "publisher"}), "null");
  EXPECT_EQ(signal.at({"signal", "diagnostic"}), "true");
  EXPECT_EQ(signal.size(signal.member(signal.member(0, "signal"), "subscribers")), 0);

  Json node(run(vxcli_ldf_node_show_command, {"LSM", ldf("lin22.ldf")}, VXCLI_FORMAT_JSON).out);
  EXPECT_EQ(node.at({"node", "role"}), "slave");
  EXPECT_EQ(node.at({"node", "time_base_ms"}), "<missing>");

  Json schedule(run(vxcli_ldf_schedule_show_command, {"Table4", ldf("iso17987.ldf")},
                    VXCLI_FORMAT_JSON).out);
  int entries = schedule.member(schedule.member(0, "schedule"), "entries");
  int config = schedule.element(entries, 0);
  int resp = schedule.element(entries, 1);
  EXPECT_EQ(schedule.at({"schedule", "entry_count"}), "2");
  EXPECT_EQ(schedule.raw(schedule.member(config, "kind")), "configuration");
  EXPECT_EQ(schedule.raw(schedule.member(config, "frame_type")), "<missing>");
  EXPECT_EQ(schedule.raw(schedule.member(resp, "index")), "1");
  EXPECT_EQ(schedule.raw(schedule.member(resp, "frame_type")), "diagnostic");
  EXPECT_EQ(schedule.raw(schedule.member(resp, "id")), "0x3D");
  EXPECT_EQ(schedule.raw(schedule.member(resp, "operation")), "master-read");
  EXPECT_EQ(schedule.raw(schedule.member(resp, "delay_ms")), "10");
}

TEST_F(LdfCommands, ErrorsAreReportedOnceInTheChosenFormat) {
  struct Case { vxcli_handler handler; std::vector<std::string> words; std::string message; };
  std::string file = ldf("lin22.ldf");
  const Case cases[] = {
      {vxcli_ldf_node_show_command, {file}, "node name is required"},
      {vxcli_ldf_node_show_command, {"XYZ", file}, "LDF node not found: XYZ"},
      {vxcli_ldf_frame_show_command, {file}, "frame name is required"},
      {vxcli_ldf_frame_show_command, {"XYZ", file}, "LDF frame not found: XYZ"},
      {vxcli_ldf_signal_show_command, {file}, "signal name is required"},
      {vxcli_ldf_signal_show_command, {file, "XYZ"}, "LDF signal not found: XYZ"},
      {vxcli_ldf_schedule_show_command, {file}, "schedule name is required"},
      {vxcli_ldf_schedule_show_command, {"XYZ", file}, "LDF schedule not found: XYZ"},
      {vxcli_ldf_frame_list_command, {file, "--type=periodic"}, "invalid LDF frame type: periodic"},
      {vxcli_ldf_info_command, {"--ldf=/nonexistent/a.ldf"}, "database resource or file was not found"},
      {vxcli_ldf_info_command, {}, "no matching database resource is loaded"},
      {vxcli_ldf_info_command, {"--database=" + vxtest::testdata("dbc/abs.dbc")},
       "database resource or file was not found"},
      {vxcli_ldf_schedule_activate_command, {file, "Normal_Schedule"},
       "schedule name and --channel are required"},
      {vxcli_ldf_schedule_activate_command, {file, "--channel=10356/4"},
       "schedule name and --channel are required"},
      {vxcli_ldf_schedule_activate_command, {file, "--channel=10356/4", "--schedule=MRF_schedule"},
       "cannot clear runtime LIN schedule: daemon is not running"},
      {vxcli_ldf_schedule_activate_command, {file, "Configuration_Schedule", "--channel", "10356/4"},
       "schedule entry 0 (AssignNAD {LSM}) is not directly executable; only unconditional and "
       "diagnostic frames can be materialized"},
      {vxcli_ldf_schedule_deactivate_command, {}, "--channel is required"},
  };
  for (const Case& c : cases) {
    Output text = run(c.handler, c.words);
    EXPECT_EQ(text.rc, 1);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err, "ERROR: " + c.message + "\n");
    Output json = run(c.handler, c.words, VXCLI_FORMAT_JSON);
    EXPECT_EQ(json.rc, 1);
    Json doc(json.out);
    ASSERT_TRUE(doc.valid()) << json.out;
    EXPECT_EQ(doc.at({"status"}), "error");
    EXPECT_EQ(doc.at({"error", "code"}), "command_failed");
  }
  // A broken file reports the reader's message with its line.
  std::string broken = sandbox_.write_file("broken.ldf", "LIN_description_file;\nLIN_speed = 19200 baud;\n");
  Output o = run(vxcli_ldf_info_command, {"--database=" + broken});
  EXPECT_EQ(o.err, "ERROR: LIN_speed must use bps or kbps at line 2\n");
}

}  // namespace
