// TX task entries and route tables as the commands build and edit them.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "message/frame.h"
#include "message/lin.h"
#include "message/route.h"
#include "message/txtask.h"

namespace {

struct Built {
  int rc;
  VXTxTask task;
  std::string error;
};

Built build(vxcli_txtask_options o, bool lin = false) {
  Built b;
  char error[256] = "";
  b.rc = vxcli_txtask_build(o, lin, false, &b.task, error, sizeof error);
  b.error = error;
  return b;
}

vxcli_txtask_options can_task(const char* id, const char* cycle = "100") {
  vxcli_txtask_options o;
  memset(&o, 0, sizeof o);
  o.message = id;
  o.cycle = cycle;
  return o;
}

TEST(TxTaskBuild, IdentifiersFlagsAndPayloadDefaults) {
  Built hex = build(can_task("1A"));
  ASSERT_EQ(hex.rc, 0) << hex.error;
  EXPECT_EQ(vxcli_txtask_shown_id(hex.task), 0x1Au);
  EXPECT_EQ(hex.task.type, VX_TXTASK_FIXED);
  EXPECT_EQ(hex.task.length, 8);  // eight zero bytes by default
  EXPECT_EQ(hex.task.cycle, 100u);
  EXPECT_EQ(hex.task.rounds, 0u);

  EXPECT_EQ(vxcli_txtask_shown_id(build(can_task("100")).task), 100u);  // decimal

  // Beyond 11 bits the identifier is extended and stored in the device layout.
  Built ext = build(can_task("0x18DAF110"));
  ASSERT_EQ(ext.rc, 0);
  EXPECT_TRUE(ext.task.flags & VX_FRAME_IDE);
  EXPECT_EQ(ext.task.id, vxcli_can_id_to_device(0x18DAF110, true));
  EXPECT_EQ(vxcli_txtask_shown_id(ext.task), 0x18DAF110u);

  vxcli_txtask_options fd = can_task("0x100");
  fd.data = "00112233445566778899AABB";
  fd.flags = "brs";
  Built f = build(fd);
  ASSERT_EQ(f.rc, 0) << f.error;
  EXPECT_EQ(f.task.length, 12);
  EXPECT_EQ(f.task.flags, VX_FRAME_FDF | VX_FRAME_BRS);
  EXPECT_EQ(f.task.data[11], 0xBB);

  vxcli_txtask_options words = can_task("0x10");
  words.flags = "ide, rtr";
  EXPECT_EQ(build(words).task.flags, VX_FRAME_IDE | VX_FRAME_RTR);
}

TEST(TxTaskBuild, TypeWordsAndPatternFields) {
  EXPECT_EQ(vxcli_txtask_type_from_word("random"), VX_TXTASK_RANDOMDATA);
  EXPECT_EQ(vxcli_txtask_type_from_word("RandomData"), VX_TXTASK_RANDOMDATA);
  EXPECT_STREQ(vxcli_txtask_type_name(vxcli_txtask_type_from_word("random")), "randomdata");
  EXPECT_STREQ(vxcli_txtask_type_name(9), "unknown");

  vxcli_txtask_options inc = can_task("0x200", "10");
  inc.type = "incdata";
  inc.inc_startbit = "8";
  inc.inc_nbits = "8";
  inc.inc_step = "2";
  inc.inc_min = "0x10";
  inc.rounds = "5";
  inc.delay = "3";
  Built b = build(inc);
  ASSERT_EQ(b.rc, 0) << b.error;
  EXPECT_EQ(b.task.type, VX_TXTASK_INCDATA);
  EXPECT_EQ(b.task.inc_startbit, 8);
  EXPECT_EQ(b.task.inc_nbits, 8);
  EXPECT_EQ(b.task.inc_step, 2u);
  EXPECT_EQ(b.task.inc_min, 0x10u);
  EXPECT_EQ(b.task.inc_max, 0xFFu);  // the field's maximum
  EXPECT_EQ(b.task.rounds, 5u);
  EXPECT_EQ(b.task.delay, 3);

  vxcli_txtask_options id = can_task("0x100");
  id.type = "incid";
  EXPECT_EQ(build(id).task.inc_max, 0x7FFu);  // standard identifier range
}

TEST(TxTaskBuild, Refusals) {
  struct Case {
    vxcli_txtask_options o;
    const char* error;
  };
  vxcli_txtask_options no_cycle = can_task("0x1", nullptr);
  vxcli_txtask_options bad_id = can_task("12xyz");
  vxcli_txtask_options bad_type = can_task("0x1");
  bad_type.type = "sawtooth";
  vxcli_txtask_options zero_cycle = can_task("0x1", "0");
  vxcli_txtask_options wide = can_task("0x1");
  wide.type = "incdata";
  wide.data = "0102";
  wide.inc_nbits = "32";
  vxcli_txtask_options bad_data = can_task("0x1");
  bad_data.data = "01zz";
  vxcli_txtask_options fd_length = can_task("0x1");
  fd_length.data = "000102030405060708";  // nine bytes: no CAN FD length
  vxcli_txtask_options bad_flag = can_task("0x1");
  bad_flag.flags = "ide,xyz";
  for (const Case& c : {Case{no_cycle, "--cycle is required"},
                        Case{bad_id, "Invalid message ID: 12xyz"},
                        Case{bad_type, "Unknown TX task type: sawtooth (fixed/incdata/incid/random/randomdata/randomid)"},
                        Case{zero_cycle, "--cycle must be at least 1 ms unless --rounds=1"},
                        Case{wide, "generated field (bits 0..31) does not fit the 2-byte payload"},
                        Case{bad_data, "Invalid --data: 01zz (at most 64 hex bytes)"},
                        Case{fd_length, "Invalid --data: 9 bytes is not a CAN FD length"},
                        Case{bad_flag, "Invalid --flags: ide,xyz (ide, rtr, brs, fdf, esi)"}}) {
    Built b = build(c.o);
    EXPECT_EQ(b.rc, -1) << c.error;
    EXPECT_EQ(b.error, c.error);
  }
  vxcli_txtask_options one_shot = can_task("0x1", "0");
  one_shot.rounds = "1";
  EXPECT_EQ(build(one_shot).rc, 0);
}

TEST(TxTaskBuild, LinSlaveResponse) {
  vxcli_txtask_options o;
  memset(&o, 0, sizeof o);
  o.message = "0x21";
  o.data = "4A5593E5";
  Built b = build(o, true);
  ASSERT_EQ(b.rc, 0) << b.error;
  const auto* r = reinterpret_cast<const VXLinResponseTask*>(&b.task);
  EXPECT_EQ(r->enabled, 1);
  EXPECT_EQ(r->kind, VX_TXTASK_KIND_LIN_RESPONSE);
  EXPECT_EQ(r->flags, VX_LINTASK_ACTIVE | VX_LINTASK_ENHANCED);
  EXPECT_EQ(r->length, 4);
  EXPECT_EQ(r->repeat, 1);
  EXPECT_EQ(r->id, 0x21);
  const uint8_t data[4] = {0x4A, 0x55, 0x93, 0xE5};
  EXPECT_EQ(r->checksum, vxcli_lin_checksum(data, 4, 0x21, VXCLI_LIN_CHECKSUM_ENHANCED));
  EXPECT_EQ(vxcli_txtask_shown_id(b.task), 0x21u);
  EXPECT_TRUE(vxcli_txtask_in_use(b.task));

  o.message = "0x3C";  // diagnostic frames answer with the classic checksum
  EXPECT_EQ(build(o, true).task.flags, VX_LINTASK_ACTIVE);
  o.message = "0x40";
  EXPECT_EQ(build(o, true).error, "LIN frame ID must be in range 0x00..0x3F");
  o.message = "0x21";
  o.cycle = "10";
  EXPECT_EQ(build(o, true).error, "LIN slave responses require --cycle=0");
  o.cycle = nullptr;
  o.data = "010203040506070809";
  EXPECT_EQ(build(o, true).error, "Invalid --data: 010203040506070809 (at most 8 hex bytes)");
}

TEST(RouteTable, EntriesAndRemovalFilters) {
  VXRoute table[64];
  memset(table, 0, sizeof table);
  vxcli_route_request any{VX_ROUTE_UNICAST, 0, 1, false, 0, false, 0};
  vxcli_route_build(any, &table[0]);
  EXPECT_EQ(table[0].id_mask, 0u);  // matches every identifier
  EXPECT_EQ(table[0].flags_mask, 0);
  vxcli_route_request one{VX_ROUTE_UNICAST, 0, 2, true, 0x123, true, VX_FRAME_IDE};
  vxcli_route_build(one, &table[1]);
  EXPECT_EQ(table[1].id_mask, 0x1FFFFFFFu);
  EXPECT_EQ(table[1].id_value, 0x123u);
  EXPECT_EQ(table[1].flags_mask, 0xFF);
  EXPECT_EQ(table[1].flags_value, VX_FRAME_IDE);
  vxcli_route_request mask{VX_ROUTE_BROADCAST, 0, 0x0E, true, 0x123, false, 0};
  vxcli_route_build(mask, &table[2]);
  EXPECT_STREQ(vxcli_route_type_name(table[2].type), "broadcast");
  EXPECT_EQ(vxcli_route_first_free(table, 64), 3);
  EXPECT_EQ(vxcli_route_used_length(table, 64), 3);

  VXRoute copy[64];
  memcpy(copy, table, sizeof copy);
  EXPECT_EQ(vxcli_route_remove_matching(copy, 64, true, 7, false, 0), 0);
  EXPECT_EQ(vxcli_route_remove_matching(copy, 64, false, 0, true, 0x123), 2);
  EXPECT_EQ(copy[0].type, VX_ROUTE_UNICAST);
  EXPECT_EQ(vxcli_route_remove_matching(copy, 64, true, 1, false, 0), 1);
  EXPECT_EQ(vxcli_route_used_length(copy, 64), 0);
  // Without filters everything goes.
  EXPECT_EQ(vxcli_route_remove_matching(table, 64, false, 0, false, 0), 3);
}

}  // namespace
