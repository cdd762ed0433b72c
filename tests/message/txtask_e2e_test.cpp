// Standalone TX tasks on the virtual analyzer: the device keeps sending after the
// command exits, and a receiver on the other device of the same bus sees it.
#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>

#include "e2e_util.h"
#include "vxtest.h"

namespace {

using msgtest::lines;
using msgtest::member;

// Frames of one capture grouped by identifier: the payloads in arrival order.
std::map<std::string, std::vector<std::string>> by_id(const std::string& jsonl) {
  std::map<std::string, std::vector<std::string>> out;
  for (const auto& line : lines(jsonl))
    if (!line.empty()) out[member(line, "id")].push_back(member(line, "data"));
  return out;
}

TEST(TxTaskE2E, KeepsSendingAtItsCycleUntilRemoved) {
  vxtest::Sandbox box;
  auto add = box.vxcli({"txtask", "add", "--channel=10356/0", "--message=0x123", "--cycle=20", "--data=0102"});
  ASSERT_EQ(add.rc, 0) << add.err;
  EXPECT_EQ(add.out, "TX task 0 added on channel 0: type=fixed cycle=20ms id=0x123\n");

  // The adding process is gone; one second of capture holds about 50 frames.
  auto got = box.vxcli({"message", "recv", "--channel=10357/0", "--duration=1", "--format=jsonl"});
  ASSERT_EQ(got.rc, 0) << got.err;
  auto frames = by_id(got.out);
  ASSERT_EQ(frames.size(), 1u) << got.out;
  EXPECT_GE(frames["0x123"].size(), 30u);
  EXPECT_LE(frames["0x123"].size(), 70u);
  EXPECT_EQ(frames["0x123"][0], "0102");

  auto list = box.vxcli({"txtask", "list", "--channel=10356/0"});
  ASSERT_EQ(list.rc, 0) << list.err;
  EXPECT_EQ(list.out, "Task 0: type=fixed cycle=20ms delay=0 rounds=0 id=0x123 flags=0x00 len=2\n  Payload: 01 02 \n");
  auto csv = box.vxcli({"txtask", "list", "--channel=10356/0", "--format=csv"});
  EXPECT_EQ(csv.out, "taskid,type,cycle,delay,nrounds,id,flags,length\n0,fixed,20,0,0,0x123,0,2\n");
  auto json = box.vxcli({"txtask", "add", "--channel=10356/0", "--id=0x18DAF110", "--cycle=500", "--type=random",
                         "--format=json"});
  ASSERT_EQ(json.rc, 0) << json.out << json.err;
  EXPECT_EQ(json.out, "{\"status\":\"ok\",\"taskid\":1,\"channel\":0,\"type\":4,\"cycle\":500,\"id\":\"0x18DAF110\"}\n");
  auto listed = box.vxcli({"txtask", "list", "--channel=10356/0", "--format=json"});
  EXPECT_EQ(member(listed.out, "count"), "2");
  EXPECT_NE(listed.out.find("{\"taskid\":1,\"type\":\"randomdata\",\"cycle\":500,\"delay\":0,\"nrounds\":0,"
                            "\"id\":\"0x18DAF110\",\"flags\":1,\"length\":8}"),
            std::string::npos)
      << listed.out;

  auto bad = box.vxcli({"txtask", "remove", "--channel=10356/0", "--taskid=64"});
  EXPECT_EQ(bad.rc, 1);
  EXPECT_EQ(bad.err, "ERROR: Invalid task ID 64 (valid range: 0-63)\n");
  for (const char* id : {"0", "1"}) {
    auto removed = box.vxcli({"txtask", "remove", "--channel=10356/0", std::string("--taskid=") + id});
    ASSERT_EQ(removed.rc, 0) << removed.err;
    EXPECT_EQ(removed.out, std::string("TX task ") + id + " removed from channel 0\n");
  }
  EXPECT_EQ(box.vxcli({"txtask", "list", "--channel=10356/0"}).out, "No TX tasks on channel 0\n");
  auto quiet = box.vxcli({"message", "recv", "--channel=10357/0", "--duration=0.3", "--format=jsonl"});
  EXPECT_EQ(quiet.out, "") << quiet.out;
}

TEST(TxTaskE2E, GeneratedDataAndIdentifiersChange) {
  vxtest::Sandbox box;
  ASSERT_EQ(box.vxcli({"txtask", "add", "--channel=10356/1", "--message=0x200", "--cycle=10", "--type=incdata",
                       "--data=0000", "--inc-startbit=0", "--inc-nbits=8", "--inc-step=3"})
                .rc,
            0);
  ASSERT_EQ(box.vxcli({"txtask", "add", "--channel=10356/1", "--message=0x300", "--cycle=10", "--type=incid",
                       "--inc-min=0x300", "--inc-max=0x30F", "--data=AA"})
                .rc,
            0);
  ASSERT_EQ(box.vxcli({"txtask", "add", "--channel=10356/1", "--message=0x400", "--cycle=10", "--type=random",
                       "--data=00000000"})
                .rc,
            0);
  auto got = box.vxcli({"message", "recv", "--channel=10357/1", "--duration=0.5", "--format=jsonl"});
  ASSERT_EQ(got.rc, 0) << got.err;
  std::set<std::string> incid_ids, random_data;
  std::vector<std::string> incdata;
  for (const auto& line : lines(got.out)) {
    if (line.empty()) continue;
    std::string id = member(line, "id");
    if (id == "0x200") incdata.push_back(member(line, "data"));
    else if (id == "0x400") random_data.insert(member(line, "data"));
    else if (member(line, "data") == "AA") incid_ids.insert(id);
  }
  ASSERT_GE(incdata.size(), 10u) << got.out;
  // The first byte counts up by the step and starts again at the minimum once it
  // passed the field's maximum; the second byte is outside the field.
  for (size_t i = 1; i < incdata.size(); i++) {
    int a = std::stoi(incdata[i - 1].substr(0, 2), nullptr, 16), b = std::stoi(incdata[i].substr(0, 2), nullptr, 16);
    EXPECT_EQ(a + 3 > 0xFF ? 0 : a + 3, b) << incdata[i - 1] << " -> " << incdata[i];
    EXPECT_EQ(incdata[i].substr(2), "00");
  }
  EXPECT_GE(incid_ids.size(), 10u);
  for (const auto& id : incid_ids) EXPECT_TRUE(id >= "0x300" && id <= "0x30F") << id;
  EXPECT_GE(random_data.size(), 5u);
}

TEST(TxTaskE2E, SixtyFourTasksFillTheTable) {
  vxtest::Sandbox box;
  for (int i = 0; i < 64; i++) {
    auto r = box.vxcli({"txtask", "add", "--channel=10356/2", "--message=" + std::to_string(0x100 + i), "--cycle=60000",
                        "--rounds=1", "--delay=60000"});
    ASSERT_EQ(r.rc, 0) << i << r.err;
  }
  auto full = box.vxcli({"txtask", "add", "--channel=10356/2", "--message=0x7FF", "--cycle=100"});
  EXPECT_EQ(full.rc, 1);
  EXPECT_EQ(full.err, "ERROR: Maximum number of TX tasks (64) reached\n");
  auto list = box.vxcli({"txtask", "list", "--channel=10356/2", "--format=json"});
  EXPECT_NE(list.out.find("],\"count\":64}\n"), std::string::npos) << list.out;
  EXPECT_EQ(list.out.find("0x7FF"), std::string::npos);
}

TEST(TxTaskE2E, LinChannelGetsASlaveResponse) {
  vxtest::Sandbox box;
  auto add = box.vxcli({"txtask", "add", "--channel=10357/4", "--message=0x21", "--data=A1A2A3A4"});
  ASSERT_EQ(add.rc, 0) << add.err;
  EXPECT_EQ(add.out, "TX task 0 added on channel 12: type=fixed cycle=0ms id=0x21\n");
  auto read = box.vxcli({"message", "send", "--channel=10356/4", "--id=0x21", "--type=master-read", "--dlc=4",
                         "--format=json"});
  ASSERT_EQ(read.rc, 0) << read.out << read.err;
  EXPECT_NE(read.out.find("\"data\":\"A1A2A3A4\""), std::string::npos) << read.out;

  auto cyclic = box.vxcli({"txtask", "add", "--channel=10357/4", "--message=0x22", "--cycle=10"});
  EXPECT_EQ(cyclic.rc, 1);
  EXPECT_EQ(cyclic.err, "ERROR: LIN slave responses require --cycle=0\n");
}

TEST(TxTaskE2E, OptionErrors) {
  vxtest::Sandbox box;
  struct Case {
    std::vector<std::string> args;
    const char* err;
  };
  for (const Case& c : {Case{{"txtask", "add", "--message=0x1", "--cycle=10"}, "ERROR: --channel is required\n"},
                        Case{{"txtask", "add", "--channel=10356/0", "--cycle=10"}, "ERROR: --message is required\n"},
                        Case{{"txtask", "remove", "--channel=10356/0"}, "ERROR: --taskid is required\n"},
                        Case{{"txtask", "list", "--channel=10999/0"}, "ERROR: Failed to open channel 10999\n"}}) {
    auto r = box.vxcli(c.args);
    EXPECT_EQ(r.rc, 1) << c.err;
    EXPECT_EQ(r.err, c.err);
  }
  auto note = box.vxcli({"txtask", "add", "--channel=10356/3", "--message=100", "--cycle=1000"});
  ASSERT_EQ(note.rc, 0);
  EXPECT_EQ(note.err, "NOTE: --message=100 parsed as decimal (100). Use 0x prefix for hex.\n");
  EXPECT_EQ(note.out, "TX task 0 added on channel 3: type=fixed cycle=1000ms id=0x64\n");
}

}  // namespace
