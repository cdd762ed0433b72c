#include <gtest/gtest.h>

#include "diag/services.h"
#include "vxtest.h"

TEST(UdsServices, ShippedFileIsValidAndUseful) {
  std::vector<vxcli_uds_service> list;
  char err[256];
  std::string path = std::string(VX_SOURCE_DIR) + "/res/uds.xml";
  ASSERT_EQ(vxcli_uds_services_read_file(path.c_str(), &list, err, sizeof err), 0) << err;
  EXPECT_GT(list.size(), 30u);
  const auto* vin = vxcli_uds_services_find(list, "readvin");
  ASSERT_NE(vin, nullptr);
  EXPECT_EQ(vin->id, 0x22);
  EXPECT_EQ(vin->data, (std::vector<uint8_t>{0xF1, 0x90}));
  ASSERT_NE(vxcli_uds_services_find(list, "tp"), nullptr);
  EXPECT_EQ(vxcli_uds_services_find(list, "tp")->id, 0x3E);
  EXPECT_EQ(vxcli_uds_services_find(list, "NoSuchService"), nullptr);
}

TEST(UdsServices, RoundTripAndEntities) {
  const char* xml =
      "\xEF\xBB\xBF<?xml version='1.0'?>\n<!-- mine -->\n<services>\n"
      "  <service id='0x31' name='EraseFlash' alias=\"erase\" data=\"01 FF 00\"\n"
      "           params='address(4) size(4)'>Erase &amp; check &lt;flash&gt;</service>\n"
      "  <service id=\"10\" name=\"Session\"/>\n"
      "</services>\n";
  std::vector<vxcli_uds_service> list;
  char err[256];
  ASSERT_EQ(vxcli_uds_services_parse(xml, &list, err, sizeof err), 0) << err;
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0].description, "Erase & check <flash>");
  EXPECT_EQ(list[0].data, (std::vector<uint8_t>{0x01, 0xFF, 0x00}));
  EXPECT_EQ(list[1].id, 0x10);
  std::vector<vxcli_uds_service> again;
  ASSERT_EQ(vxcli_uds_services_parse(vxcli_uds_services_to_xml(list), &again, err, sizeof err), 0);
  ASSERT_EQ(again.size(), 2u);
  EXPECT_EQ(again[0].description, list[0].description);
  EXPECT_EQ(again[0].alias, "erase");
  EXPECT_EQ(again[0].params, list[0].params);
}

TEST(UdsServices, Rejections) {
  struct Case { const char* xml; const char* fragment; };
  for (Case c : {Case{"", "expected root element"},
                 Case{"<servicesX/>", "expected root element"},
                 Case{"<services>", "missing </services>"},
                 Case{"<services><service name='A'/></services>", "without id"},
                 Case{"<services><service id='0x22'/></services>", "without name"},
                 Case{"<services><service id='0x1234' name='A1'/></services>", "one hex byte"},
                 Case{"<services><service id='1' name='Zed'/><service id='2' name='zed'/></services>",
                      "duplicate"},
                 Case{"<services><service id='1' name='BEEF'/></services>", "not hex"},
                 Case{"<services><other/></services>", "unknown element <other>"},
                 Case{"<services><service id=1 name='A'/></services>", "quoted"},
                 Case{"<services>\n\n<service id='1' name='Q' data='ZZ'/></services>", "line 3"},
                 Case{"<services/>trailing", "after </services>"}}) {
    std::vector<vxcli_uds_service> list;
    char err[256] = "";
    EXPECT_EQ(vxcli_uds_services_parse(c.xml, &list, err, sizeof err), -1) << c.xml;
    EXPECT_NE(std::string(err).find(c.fragment), std::string::npos) << c.xml << " -> " << err;
  }
}

TEST(UdsServices, WriteFileThenRead) {
  vxtest::Sandbox box;
  std::vector<vxcli_uds_service> list = {{0x3E, "Ping", "", {0x00}, "", "keep alive"}};
  char err[256];
  std::string path = box.path("out.xml");
  ASSERT_EQ(vxcli_uds_services_write_file(path.c_str(), list, err, sizeof err), 0) << err;
  std::vector<vxcli_uds_service> back;
  ASSERT_EQ(vxcli_uds_services_read_file(path.c_str(), &back, err, sizeof err), 0) << err;
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back[0].name, "Ping");
  EXPECT_EQ(vxcli_uds_services_write_file(box.path("no/such/dir/x.xml").c_str(), list, err, sizeof err), -1);
}
