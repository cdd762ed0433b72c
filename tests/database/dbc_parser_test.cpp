#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

#include "database/dbc.h"
#include "vxtest.h"

namespace {

DBCIterator parse(const std::string& text) {
  std::istringstream in(text);
  return DBCIterator(in);
}

const Message* by_name(const DBCIterator& dbc, const std::string& name) {
  for (const Message& m : dbc)
    if (m.name == name) return &m;
  return nullptr;
}

TEST(DbcParser, MessageHeadersAndSignalFields) {
  DBCIterator dbc = parse(
      "VERSION \"\"\n\nBU_: A B\n\n"
      "BO_ 2566844693 Ext: 8 Node\n"
      " SG_ Speed : 7|16@0- (0.01,-5) [-10|600.5] \"km/h\" A,B\n"
      " SG_ Flag : 16|1@1+ (1,0) [0|1] \"\" Vector__XXX\n"
      "\n"
      "BO_ 100 Spaced : 12 Node\n"
      " SG_ X : 0|8@1+ (1,0) [0|0] \"\" A\n");
  ASSERT_EQ(dbc.size(), 2u);
  const Message& ext = dbc[0];
  EXPECT_EQ(ext.name, "Ext");
  EXPECT_EQ(ext.id, 0x98FEF115u);
  EXPECT_TRUE(ext.extended);
  EXPECT_FALSE(ext.fd);
  EXPECT_EQ(ext.from, "Node");
  ASSERT_EQ(ext.signals.size(), 2u);
  const Signal& speed = ext.signals[0];
  EXPECT_EQ(speed.order, DBC_MOTOROLA);
  EXPECT_EQ(speed.startBit, 7);
  EXPECT_EQ(speed.length, 16);
  EXPECT_EQ(speed.sign, 1);
  EXPECT_DOUBLE_EQ(speed.factor, 0.01);
  EXPECT_DOUBLE_EQ(speed.offset, -5);
  EXPECT_DOUBLE_EQ(speed.minimum, -10);
  EXPECT_DOUBLE_EQ(speed.maximum, 600.5);
  EXPECT_EQ(speed.unit, "km/h");
  EXPECT_EQ(speed.to, (std::set<std::string>{"A", "B"}));
  EXPECT_EQ(ext.signals[1].order, DBC_INTEL);
  EXPECT_EQ(ext.signals[1].sign, 0);
  EXPECT_EQ(ext.getTo(), (std::set<std::string>{"A", "B", "Vector__XXX"}));

  const Message& spaced = dbc[1];
  EXPECT_EQ(spaced.name, "Spaced");
  EXPECT_EQ(spaced.size, 12u);
  EXPECT_TRUE(spaced.fd);
  EXPECT_FALSE(spaced.extended);
  EXPECT_EQ(spaced.signals.size(), 1u);  // last line without a newline still counts
}

TEST(DbcParser, SignalListEndsAtNextStatementOrBadLine) {
  DBCIterator dbc = parse(
      "BO_ 1 First: 8 N\n"
      " SG_ A : 0|8@1+ (1,0) [0|0] \"\" N\n"
      "BO_ 2 Second: 8 N\n"  // directly after a signal, no blank line
      " SG_ B : 0|8@1+ (1,0) [0|0] \"\" N\r\n"
      " SG_ Broken : x|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ Orphan : 8|8@1+ (1,0) [0|0] \"\" N\n"
      "\n"
      "BO_ notanumber Bad: 8 N\n"
      "BO_ 3 Third: 8 N\n"
      " SG_ C : 0|8@1+ (1,0) [0|0] \"\" N\n");
  ASSERT_EQ(dbc.size(), 3u);
  EXPECT_EQ(dbc[0].signals.size(), 1u);
  EXPECT_EQ(dbc[1].name, "Second");
  ASSERT_EQ(dbc[1].signals.size(), 1u);  // the bad line ends the list; Orphan is skipped
  EXPECT_EQ(dbc[1].signals[0].name, "B");
  EXPECT_EQ(dbc[2].name, "Third");
  EXPECT_EQ(dbc[2].signals.size(), 1u);
}

TEST(DbcParser, MultiplexRolesAndUnitQuirk) {
  DBCIterator dbc = parse(
      "BO_ 10 Mux: 8 N\n"
      " SG_ Sw M : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ S1 m3 : 8|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ S2 m12M : 16|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ T : 24|8@1- (1,0) [0|0] \"deg C\" N\n");
  ASSERT_EQ(dbc.size(), 1u);
  const Message& m = dbc[0];
  ASSERT_EQ(m.signals.size(), 4u);
  EXPECT_EQ(m.signals[0].multiplexor, DBC_MULTIPLEXOR);
  EXPECT_EQ(m.signals[1].multiplexor, DBC_MULTIPLEXED);
  EXPECT_EQ(m.signals[1].multiplexNum, 3);
  EXPECT_EQ(m.signals[2].multiplexor, DBC_MULTIPLEXED);
  EXPECT_EQ(m.signals[2].multiplexNum, 12);
  // A blank inside the unit splits it: the second half becomes the receivers.
  EXPECT_EQ(m.signals[3].unit, "deg");
  EXPECT_EQ(m.signals[3].to, (std::set<std::string>{"C\""}));
}

TEST(DbcParser, FrameFormatAndBrsDefaultsApplyBothWays) {
  const std::string messages =
      "BO_ 100 A: 8 N\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n\n"
      "BO_ 2147483848 B: 8 N\n\n"  // 200 with the extended flag
      "BO_ 300 C: 8 N\n\n";
  // Defaults after the messages, then explicit values that override them.
  DBCIterator after = parse(messages +
                            "BA_DEF_DEF_  \"VFrameFormat\" \"StandardCAN_FD\";\n"
                            "BA_DEF_DEF_ \"CANFD_BRS\" \"1\";\n"
                            "BA_ \"VFrameFormat\" BO_ 300 1;\n"
                            "BA_ \"CANFD_BRS\" BO_ 300 \"0\";\n"
                            "BA_ \"GenMsgCycleTime\" BO_ 100 50;\n");
  ASSERT_EQ(after.size(), 3u);
  EXPECT_TRUE(after[0].fd);
  EXPECT_FALSE(after[0].extended);
  EXPECT_TRUE(after[0].brs);
  EXPECT_EQ(after[0].cycleTime, 50u);
  EXPECT_TRUE(after[1].fd);
  EXPECT_FALSE(after[1].extended);  // the attribute outranks the id
  EXPECT_TRUE(after[2].extended);
  EXPECT_FALSE(after[2].fd);
  EXPECT_FALSE(after[2].brs);

  // Defaults before the messages reach later ones; non-FD defaults do nothing.
  DBCIterator before = parse("BA_DEF_DEF_ \"VFrameFormat\" \"ExtendedCAN_FD\";\n" + messages +
                             "BA_ \"VFrameFormat\" BO_ 100 14;\n");
  EXPECT_TRUE(before[0].fd);
  EXPECT_FALSE(before[0].extended);
  EXPECT_TRUE(before[2].fd);
  EXPECT_TRUE(before[2].extended);
  DBCIterator ignored = parse("BA_DEF_DEF_ \"VFrameFormat\" \"\";\n"
                              "BA_DEF_DEF_ \"VFrameFormat\" \"StandardCAN\";\n" + messages);
  EXPECT_FALSE(ignored[0].fd);
  EXPECT_TRUE(ignored[1].extended);
}

TEST(DbcParser, NonStandardFrameFormatKeepsTheIdentifierWidth) {
  // J1939 files mark their 29-bit messages with an enum value of their own.
  DBCIterator dbc = parse(
      "BO_ 2503213569 M1: 8 N\n\nBO_ 2515537922 M2: 8 N\n\n"
      "BA_DEF_DEF_  \"VFrameFormat\" \"J1939PG\";\n"
      "BA_ \"VFrameFormat\" BO_ 2503213569 3;\n");
  ASSERT_EQ(dbc.size(), 2u);
  EXPECT_TRUE(dbc[0].extended);
  EXPECT_FALSE(dbc[0].fd);
  EXPECT_TRUE(dbc[1].extended);
}

TEST(DbcParser, ValueDescriptions) {
  DBCIterator dbc = parse(
      "BO_ 100 M: 8 N\n"
      " SG_ Mode : 0|8@1+ (1,0) [0|0] \"\" N\n"
      " SG_ Other : 8|8@1+ (1,0) [0|0] \"\" N\n\n"
      "CM_ SG_ 100 Mode \"first line\n"
      "BO_ continues the comment\";\n"
      "VAL_ 100 Mode 0 \"Off\" 1 \"On Hold\" 2 \"Two  blanks\" 3 \"Trail \" ;\n"
      "VAL_ 2147483748 Other 5 \"Last one\";\n"
      "VAL_ 999 Mode 0 \"nobody\" ;\n"
      "VAL_ EnvVar 0 \"env\" ;\n");
  ASSERT_GE(dbc.size(), 1u);
  const Message* m = by_name(dbc, "M");
  ASSERT_NE(m, nullptr);
  using Pairs = std::vector<std::pair<std::string, std::string>>;
  EXPECT_EQ(m->signals[0].valueDescriptions,
            (Pairs{{"0", "Off"}, {"1", "On Hold"}, {"2", "Two blanks"}, {"3", "Trail "}}));
  EXPECT_EQ(m->signals[1].valueDescriptions, (Pairs{{"5", "Last one"}}));
}

TEST(DbcParser, HelpersAndUnopenableFile) {
  EXPECT_EQ(split("a,b,,c,", ','), (std::vector<std::string>{"a", "b", "", "c"}));
  EXPECT_TRUE(split("", ',').empty());
  EXPECT_EQ(trim("\"\"x\"", "\""), "x");
  EXPECT_EQ(trim("\"\"", "\""), "");
  EXPECT_EQ(CleanDbcToken("\"ExtendedCAN_FD\";"), "ExtendedCAN_FD");
  EXPECT_EQ(CleanDbcToken("\"a\";\";"), "a");
  EXPECT_TRUE(ParseDbcBool("\"true\";"));
  EXPECT_TRUE(ParseDbcBool("1;"));
  EXPECT_FALSE(ParseDbcBool("\"yes\""));
  EXPECT_TRUE(IsDbcAttribute("\"GenMsgCycleTime\"", "GenMsgCycleTime"));
  EXPECT_TRUE(IsDbcAttribute("GenMsgCycleTime", "GenMsgCycleTime"));
  EXPECT_THROW(DBCIterator("/nonexistent/file.dbc"), std::invalid_argument);
  EXPECT_EQ(parse("no statements here\nat all").size(), 0u);
}

// Facts of the shared real-world files, counted independently of this reader.
TEST(DbcParser, RealFiles) {
  struct Expect {
    const char* file;
    size_t messages;
  };
  const Expect files[] = {
      {"toyota_prius_2010_pt.dbc", 26}, {"_honda_common.dbc", 23},
      {"_hyundai_canfd_common.dbc", 37}, {"tesla_can.dbc", 44},
      {"gm_global_a_lowspeed_1818125.dbc", 367}, {"vw_mqbevo.dbc", 136},
      {"ford_lincoln_base_pt.dbc", 331}, {"psa_aee2010_r3.dbc", 108},
      {"ESR.dbc", 80}, {"vehicle.dbc", 217},
      {"abs.dbc", 18}, {"j1939.dbc", 2},
  };
  for (const Expect& e : files) {
    SCOPED_TRACE(e.file);
    DBCIterator dbc(vxtest::testdata(std::string("dbc/") + e.file));
    EXPECT_EQ(dbc.size(), e.messages);
    std::string text = vxtest::read_file(vxtest::testdata(std::string("dbc/") + e.file));
    size_t lines = 0;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
      if (line.find_first_not_of(" \t") != std::string::npos &&
          line.compare(line.find_first_not_of(" \t"), 4, "SG_ ") == 0)
        lines++;
    size_t signals = 0;
    for (const Message& m : dbc) signals += m.signals.size();
    // Every SG_ line of every file is read.
    EXPECT_EQ(signals, lines);
  }

  DBCIterator ford(vxtest::testdata("dbc/ford_lincoln_base_pt.dbc"));
  const Message* panel = by_name(ford, "INSTRUMENT_PANEL");
  ASSERT_NE(panel, nullptr);
  EXPECT_EQ(panel->id, 0x43Au);
  EXPECT_TRUE(panel->fd);
  EXPECT_TRUE(panel->extended);  // from the ExtendedCAN_FD default
  size_t standard_fd = 0, cycles = 0;
  for (const Message& m : ford) {
    if (m.fd && !m.extended) standard_fd++;
    if (m.cycleTime) cycles++;
  }
  EXPECT_EQ(standard_fd, 281u);  // 250 of 8 bytes, 31 of 64
  EXPECT_EQ(cycles, 150u);       // 156 explicit values, 6 of them 0

  DBCIterator abs(vxtest::testdata("dbc/abs.dbc"));
  bool degree = false;
  for (const Message& m : abs)
    for (const Signal& s : m.signals) degree = degree || s.unit.find('\xB0') != std::string::npos;
  EXPECT_TRUE(degree);
  for (const Message& m : abs) EXPECT_FALSE(m.fd) << m.name;

  DBCIterator vw(vxtest::testdata("dbc/vw_mqbevo.dbc"));
  const Message* unflagged = nullptr;
  for (const Message& m : vw)
    if (m.id == 316495015u) unflagged = &m;
  ASSERT_NE(unflagged, nullptr);
  EXPECT_FALSE(unflagged->extended);

  DBCIterator tesla(vxtest::testdata("dbc/tesla_can.dbc"));
  size_t muxes = 0, described = 0;
  for (const Message& m : tesla)
    for (const Signal& s : m.signals) {
      if (s.multiplexor == DBC_MULTIPLEXOR) muxes++;
      if (!s.valueDescriptions.empty()) described++;
    }
  EXPECT_GE(muxes, 2u);
  EXPECT_EQ(described, 171u);
}

}  // namespace
