// The dbc commands through the real binary, with a private state directory.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "json/json.h"
#include "vxtest.h"

namespace {

using vxtest::RunResult;

const std::string kToyota = vxtest::testdata("dbc/toyota_prius_2010_pt.dbc");

bool valid_json(const std::string& text) {
  std::vector<vxcli_json_token> tokens(200000);
  return vxcli_json_parse(text.c_str(), tokens.data(), int(tokens.size())) > 0;
}

class DbcCommands : public testing::Test {
 protected:
  void SetUp() override {
    RunResult r = sandbox.vxcli({"dbc", "load", "--file=" + kToyota});
    ASSERT_EQ(r.rc, 0) << r.err;
  }
  vxtest::Sandbox sandbox;
};

TEST_F(DbcCommands, DecodeInEveryFormat) {
  const std::string data = "--data=01 02 00 00 0F FE 00 00";
  RunResult text = sandbox.vxcli({"dbc", "decode", "--message=0x25", data});
  ASSERT_EQ(text.rc, 0) << text.err;
  EXPECT_EQ(text.out,
            "Message: STEER_ANGLE_SENSOR (ID=0x25, DLC=8, STD)\n"
            "Raw: 01 02 00 00 0F FE 00 00\n"
            "  STEER_ANGLE                    raw=258      phys=387          deg\n"
            "  STEER_FRACTION                 raw=0        phys=0            deg\n"
            "  STEER_RATE                     raw=4094     phys=-2           deg/s\n");
  RunResult csv = sandbox.vxcli({"--format=csv", "dbc", "decode", "--message=STEER_ANGLE_SENSOR",
                                 data});
  EXPECT_EQ(csv.out,
            "signal,raw,physical,unit\nSTEER_ANGLE,258,387,deg\nSTEER_FRACTION,0,0,deg\n"
            "STEER_RATE,4094,-2,deg/s\n");
  RunResult json = sandbox.vxcli({"--format=json", "dbc", "decode", "--message=0x25",
                                  "--data=0102", "--database=toyota_prius_2010_pt"});
  EXPECT_EQ(json.out,
            "{\"status\":\"ok\",\"message\":\"STEER_ANGLE_SENSOR\",\"id\":\"0x25\","
            "\"extended\":false,\"fd\":false,\"brs\":false,\"signals\":{"
            "\"STEER_ANGLE\":{\"raw\":258,\"physical\":387,\"unit\":\"deg\"},"
            "\"STEER_FRACTION\":{\"raw\":0,\"physical\":0,\"unit\":\"deg\"},"
            "\"STEER_RATE\":{\"raw\":0,\"physical\":0,\"unit\":\"deg/s\"}}}\n");
  // jsonl is not a JSON format for decode.
  RunResult jsonl = sandbox.vxcli({"--format=jsonl", "dbc", "decode", "--message=0x25", data});
  EXPECT_EQ(jsonl.out, text.out);
}

TEST_F(DbcCommands, EncodeInEveryFormat) {
  RunResult text = sandbox.vxcli({"dbc", "encode", "--message=STEER_ANGLE_SENSOR",
                                  "--signal=STEER_ANGLE=387", "STEER_RATE=-2", "--signal",
                                  "STEER_FRACTION=0", "--signal=Bogus=1"});
  ASSERT_EQ(text.rc, 0) << text.err;
  EXPECT_EQ(text.out, "STEER_ANGLE_SENSOR (0x25) DLC=8 STD: 01 02 00 00 0F FE 00 00 \n");
  EXPECT_NE(text.err.find("WARN: signal 'Bogus' is not in message STEER_ANGLE_SENSOR"),
            std::string::npos);
  RunResult json = sandbox.vxcli({"--format=json", "dbc", "encode", "--message=0x25",
                                  "--signal=STEER_ANGLE=387", "--signal=STEER_RATE=-2"});
  EXPECT_EQ(json.out,
            "{\"status\":\"ok\",\"message\":\"STEER_ANGLE_SENSOR\",\"id\":\"0x25\",\"dlc\":8,"
            "\"extended\":false,\"fd\":false,\"brs\":false,\"data\":\"010200000FFE0000\"}\n");
  RunResult csv = sandbox.vxcli({"--format=csv", "dbc", "encode", "--message=0x25"});
  EXPECT_EQ(csv.out, "STEER_ANGLE_SENSOR (0x25) DLC=8 STD: 00 00 00 00 00 00 00 00 \n");
}

TEST_F(DbcCommands, MessageAndSignalViews) {
  RunResult list = sandbox.vxcli({"dbc", "message", "list", "steer"});
  EXPECT_EQ(list.out,  // file order, case-insensitive filter
            "0x0260 STEER_TORQUE_SENSOR                 DLC=8  4 signals [STD]\n"
            "0x0266 STEERING_IPAS                       DLC=8  6 signals [STD]\n"
            "0x02E4 STEERING_LKA                        DLC=8  6 signals [STD]\n"
            "0x0614 STEERING_LEVERS                     DLC=8  1 signals [STD]\n"
            "0x0025 STEER_ANGLE_SENSOR                  DLC=8  3 signals [STD]\n");
  RunResult none = sandbox.vxcli({"dbc", "message", "list", "--filter=nothing-like-this"});
  EXPECT_EQ(none.out, "No messages found\n");
  RunResult csv = sandbox.vxcli({"--format=csv", "dbc", "message", "list"});
  EXPECT_EQ(std::count(csv.out.begin(), csv.out.end(), '\n'), 27);
  EXPECT_EQ(csv.out.rfind("id,name,dlc,signals,extended,fd,brs\n0x24,KINEMATICS,8,3,no,no,no\n", 0),
            0u);
  RunResult json = sandbox.vxcli({"--format=json", "dbc", "message", "list", "STEER_ANGLE"});
  EXPECT_EQ(json.out,
            "{\"status\":\"ok\",\"messages\":[{\"id\":\"0x25\",\"name\":\"STEER_ANGLE_SENSOR\","
            "\"dlc\":8,\"signals\":3,\"extended\":false,\"fd\":false,\"brs\":false}],"
            "\"count\":1}\n");

  RunResult show = sandbox.vxcli({"dbc", "message", "show", "STEER_ANGLE_SENSOR"});
  EXPECT_EQ(show.out, "STEER_ANGLE_SENSOR ID=0x25 DLC=8 sender=XXX cycle=0ms signals=3 [STD]\n");
  const std::string show_json =
      "{\"status\":\"ok\",\"message\":{\"id\":\"0x25\",\"name\":\"STEER_ANGLE_SENSOR\",\"dlc\":8,"
      "\"sender\":\"XXX\",\"cycle_ms\":0,\"signals\":3,\"extended\":false,\"fd\":false,"
      "\"brs\":false}}\n";
  EXPECT_EQ(sandbox.vxcli({"--format=json", "dbc", "message", "show", "--message=0x25"}).out,
            show_json);
  EXPECT_EQ(sandbox.vxcli({"--format=jsonl", "dbc", "message", "show", "0x25"}).out, show_json);

  RunResult signal = sandbox.vxcli({"dbc", "signal", "show", "--message=0x25", "STEER_RATE"});
  EXPECT_EQ(signal.out,
            "STEER_RATE                     35|12 motorola signed factor=1 offset=0 "
            "[-2000|2000] deg/s none\n");
  RunResult signal_csv = sandbox.vxcli({"--format=csv", "dbc", "signal", "show", "--message=0x25",
                                        "--signal=STEER_FRACTION"});
  EXPECT_EQ(signal_csv.out,
            "name,start_bit,length,byte_order,signed,factor,offset,minimum,maximum,unit,multiplex,"
            "multiplex_value\nSTEER_FRACTION,39,4,motorola,true,0.10000000000000001,0,"
            "-0.69999999999999996,0.69999999999999996,deg,none,\n");
  RunResult signals = sandbox.vxcli({"--format=jsonl", "dbc", "signal", "list", "--message=0x25"});
  EXPECT_TRUE(valid_json(signals.out)) << signals.out;
  EXPECT_NE(signals.out.find("{\"name\":\"STEER_RATE\",\"start_bit\":35,\"length\":12,"
                             "\"byte_order\":\"motorola\",\"signed\":true,\"factor\":1,"
                             "\"offset\":0,\"minimum\":-2000,\"maximum\":2000,\"unit\":\"deg/s\","
                             "\"multiplex\":\"none\",\"multiplex_value\":null}],\"count\":3}\n"),
            std::string::npos)
      << signals.out;
}

TEST_F(DbcCommands, SelectorsPayloadsAndErrors) {
  RunResult decimal = sandbox.vxcli({"dbc", "decode", "--message=37", "--data=01-02:03,04"});
  ASSERT_EQ(decimal.rc, 0);
  EXPECT_EQ(decimal.err, "NOTE: --message=37 parsed as decimal (37). Use 0x prefix for hex.\n");
  EXPECT_NE(decimal.out.find("Raw: 01 02 03 04\n"), std::string::npos);
  RunResult partial = sandbox.vxcli({"dbc", "decode", "--message=0x25", "--data=01 zz 02"});
  EXPECT_NE(partial.out.find("Raw: 01\n"), std::string::npos);
  EXPECT_NE(partial.out.find("DLC=8"), std::string::npos);  // the message size

  struct Case {
    std::vector<std::string> args;
    const char* error;
  };
  const Case cases[] = {
      {{"dbc", "decode", "--data=01"}, "--message is required"},
      {{"dbc", "decode", "--message=0x25"}, "--data is required"},
      {{"dbc", "decode", "--message=0x25", "--data=zz"}, "Invalid data"},
      {{"dbc", "decode", "--message=0x25", "--data="}, "Invalid data"},
      {{"dbc", "decode", "--message=0xZZ", "--data=01"}, "Message not found: 0xZZ"},
      {{"dbc", "encode", "--message=NOPE"}, "Message not found: NOPE"},
      {{"dbc", "encode"}, "--message is required"},
      {{"dbc", "message", "show"}, "message name or ID is required"},
      {{"dbc", "signal", "list"}, "--message is required"},
      {{"dbc", "signal", "show", "--message=0x25"}, "signal name is required"},
      {{"dbc", "signal", "show", "--message=0x25", "Nope"}, "Signal not found: Nope"},
      {{"dbc", "message", "list", "--database=nosuch"}, "database resource or file was not found"},
  };
  for (const Case& c : cases) {
    RunResult r = sandbox.vxcli(c.args);
    EXPECT_EQ(r.rc, 1) << c.error;
    EXPECT_EQ(r.err, std::string("ERROR: ") + c.error + "\n");
  }
  RunResult json = sandbox.vxcli({"--format=json", "dbc", "decode", "--message=0x25",
                                  "--data=zz"});
  EXPECT_EQ(json.rc, 1);
  EXPECT_EQ(json.out.rfind("{\"status\":\"error\",\"message\":\"Invalid data\"", 0), 0u);
}

TEST_F(DbcCommands, UnregisteredFilesAndAmbiguity) {
  std::string local = sandbox.write_file(
      "local.dbc", "BO_ 2566844693 J1939: 8 N\n SG_ Temp : 0|8@1- (1,-40) [0|0] \"degC\" N\n");
  RunResult r = sandbox.vxcli({"dbc", "decode", "--message=J1939", "--data=FF",
                               "--database=./local.dbc"});
  ASSERT_EQ(r.rc, 0) << r.err;
  EXPECT_EQ(r.out,
            "Message: J1939 (ID=0x18FEF115, DLC=8, EXT)\nRaw: FF\n"
            "  Temp                           raw=255      phys=-41          degC\n");
  EXPECT_EQ(sandbox.vxcli({"dbc", "encode", "--message=0x18FEF115", "--dbc=local.dbc",
                           "--signal=Temp=-41"}).out,
            "J1939 (0x18FEF115) DLC=8 EXT: FF 00 00 00 00 00 00 00 \n");
  ASSERT_EQ(sandbox.vxcli({"dbc", "load", "--file=" + local}).rc, 0);
  RunResult ambiguous = sandbox.vxcli({"dbc", "message", "list"});
  EXPECT_EQ(ambiguous.rc, 1);
  EXPECT_EQ(ambiguous.err, "ERROR: multiple database resources match; use --database=<name>\n");
  EXPECT_EQ(sandbox.vxcli({"dbc", "message", "list", "--database=local"}).rc, 0);
}

TEST_F(DbcCommands, MultiplexedMessage) {
  ASSERT_EQ(sandbox.vxcli({"dbc", "load", "--file=" + vxtest::testdata("dbc/tesla_can.dbc"),
                           "--name=tesla"}).rc, 0);
  RunResult zero = sandbox.vxcli({"--format=csv", "dbc", "decode", "--database=tesla",
                                  "--message=UI_autopilotControl", "--data=08"});
  ASSERT_EQ(zero.rc, 0) << zero.err;
  EXPECT_NE(zero.out.find("UI_autopilotControlIndex,0,0,\n"), std::string::npos);
  EXPECT_NE(zero.out.find("UI_hovEnabled,1,1,\n"), std::string::npos);
  RunResult one = sandbox.vxcli({"--format=csv", "dbc", "decode", "--database=tesla",
                                 "--message=0x3EE", "--data=09"});
  EXPECT_NE(one.out.find("UI_autopilotControlIndex,1,1,\n"), std::string::npos);
  EXPECT_EQ(one.out.find("UI_hovEnabled"), std::string::npos);
  RunResult show = sandbox.vxcli({"dbc", "signal", "show", "--database=tesla",
                                  "--message=0x3EE", "UI_hovEnabled"});
  EXPECT_NE(show.out.find(" multiplexed=0\n"), std::string::npos);
}

// Every shared file loads, lists and decodes through the command line.
TEST(DbcSharedFiles, LoadListAndDecode) {
  vxtest::Sandbox sandbox;
  for (const auto& entry : std::filesystem::directory_iterator(vxtest::testdata("dbc"))) {
    if (entry.path().extension() != ".dbc") continue;
    std::string file = entry.path().string();
    std::string name = entry.path().stem().string();
    SCOPED_TRACE(name);
    RunResult load = sandbox.vxcli({"dbc", "load", "--file=" + file});
    ASSERT_EQ(load.rc, 0) << load.err;
    RunResult list = sandbox.vxcli({"--format=json", "dbc", "message", "list",
                                    "--database=" + name});
    ASSERT_EQ(list.rc, 0) << list.err;
    ASSERT_TRUE(valid_json(list.out));
    size_t at = list.out.find("\"id\":\"");
    ASSERT_NE(at, std::string::npos);
    std::string id = list.out.substr(at + 6, list.out.find('"', at + 6) - at - 6);
    RunResult decode = sandbox.vxcli({"--format=json", "dbc", "decode", "--database=" + name,
                                      "--message=" + id,
                                      "--data=0123456789ABCDEF0123456789ABCDEF"});
    ASSERT_EQ(decode.rc, 0) << decode.err;
    EXPECT_TRUE(valid_json(decode.out)) << decode.out;
  }
}

}  // namespace
