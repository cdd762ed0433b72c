// uds dtc: reading and clearing diagnostic trouble codes.
#include <cstdio>
#include <cstring>

#include "cli/hooks.h"
#include "cli/output.h"
#include "diag/commands.h"
#include "diag/diag_util.h"
#include "diag/uds_client.h"

namespace {

const char* const kActions[] = {"active", "count", "supported", "snapshot-id",
                                "snapshot", "extended", "clear", "hex"};

struct DtcOptions {
  const char* action = nullptr;
  int64_t mask = 0xFF;
  int64_t group = 0xFFFFFF;
  int64_t dtc = -1;
  int64_t record = 0xFF;
};

int read_options(int count, char** words, DtcOptions* o) {
  if (count < 1 || strncmp(words[0], "--", 2) == 0) {
    vxcli_print_error("uds dtc requires an action (active|count|supported|snapshot-id|snapshot|extended|clear|hex)");
    return 1;
  }
  o->action = words[0];
  bool known = false;
  for (const char* a : kActions) known = known || strcmp(a, o->action) == 0;
  if (!known) {
    vxcli_print_error("unknown uds dtc action '%s' (active|count|supported|snapshot-id|snapshot|extended|clear|hex)",
                      o->action);
    return 1;
  }
  if (vxcli_diag_int_option(count, words, "mask", 0, 0xFF, &o->mask) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "group", 0, 0xFFFFFF, &o->group) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "dtc", 0, 0xFFFFFF, &o->dtc) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "record", 0, 0xFF, &o->record) != 0) return 1;
  const bool needs_dtc = strcmp(o->action, "snapshot") == 0 || strcmp(o->action, "extended") == 0;
  if (needs_dtc && o->dtc < 0) {
    vxcli_print_error("uds dtc %s requires --dtc=<3-byte DTC, e.g. 0x012345>", o->action);
    return 1;
  }
  return 0;
}

void print_dtc_list(const char* action, const std::vector<vxcli_uds_dtc_record>& list, uint8_t availability,
                    bool hex_only) {
  if (vxcli_json_mode()) {
    printf("{\"status\":\"ok\",\"action\":\"%s\",\"availability_mask\":\"0x%02X\",\"count\":%zu,\"dtcs\":[",
           action, availability, list.size());
    for (size_t i = 0; i < list.size(); i++)
      printf("%s{\"dtc\":\"0x%06X\",\"code\":\"%s\",\"status\":\"0x%02X\",\"status_desc\":\"%s\"}",
             i ? "," : "", list[i].dtc, vxcli_uds_dtc_name(list[i].dtc).c_str(), list[i].status,
             vxcli_uds_dtc_status_desc(list[i].status).c_str());
    printf("]}\n");
    return;
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("dtc,code,status,status_desc\n");
    for (const auto& d : list)
      printf("0x%06X,%s,0x%02X,%s\n", d.dtc, vxcli_uds_dtc_name(d.dtc).c_str(), d.status,
             vxcli_uds_dtc_status_desc(d.status).c_str());
    return;
  }
  if (hex_only) {
    for (const auto& d : list) printf("%06X %02X\n", d.dtc, d.status);
    return;
  }
  printf("%zu DTC(s) (availability mask 0x%02X)\n", list.size(), availability);
  for (const auto& d : list)
    printf("  0x%06X %s status=0x%02X %s\n", d.dtc, vxcli_uds_dtc_name(d.dtc).c_str(), d.status,
           vxcli_uds_dtc_status_desc(d.status).c_str());
}

// Records after the DTC and status of a 59 04 / 59 06 answer, shown as hex.
void print_record_answer(const char* action, uint32_t dtc, const uint8_t* r, uint32_t n) {
  uint8_t status = n > 5 ? r[5] : 0;
  const uint8_t* data = n > 6 ? r + 6 : r;
  uint32_t data_length = n > 6 ? n - 6 : 0;
  std::string hex = vxcli_diag_hex_compact(data, data_length);
  if (vxcli_json_mode()) {
    printf("{\"status\":\"ok\",\"action\":\"%s\",\"dtc\":\"0x%06X\",\"code\":\"%s\",\"dtc_status\":\"0x%02X\","
           "\"status_desc\":\"%s\",\"records\":\"%s\"}\n",
           action, dtc, vxcli_uds_dtc_name(dtc).c_str(), status, vxcli_uds_dtc_status_desc(status).c_str(),
           hex.c_str());
  } else if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("dtc,status,status_desc,records\n0x%06X,0x%02X,%s,%s\n", dtc, status,
           vxcli_uds_dtc_status_desc(status).c_str(), hex.c_str());
  } else {
    printf("DTC 0x%06X %s status=0x%02X %s\n", dtc, vxcli_uds_dtc_name(dtc).c_str(), status,
           vxcli_uds_dtc_status_desc(status).c_str());
    printf("  %s records (%u bytes): %s\n", action, data_length,
           vxcli_uds_hex(data, data_length).c_str());
  }
}

}  // namespace

int vxcli_uds_dtc_check_options(int count, char** words) {
  DtcOptions o;
  return read_options(count, words, &o);
}

int vxcli_uds_dtc_command(int count, char** words) {
  DtcOptions o;
  if (read_options(count, words, &o) != 0) return 1;
  int64_t timeout = 5000;
  if (vxcli_diag_int_option(count, words, "timeout", 1, 600000, &timeout) != 0) return 1;
  const std::string action = o.action;
  std::vector<uint8_t> request;
  if (action == "active" || action == "hex") request = {0x19, 0x02, static_cast<uint8_t>(o.mask)};
  else if (action == "count") request = {0x19, 0x01, static_cast<uint8_t>(o.mask)};
  else if (action == "supported") request = {0x19, 0x0A};
  else if (action == "snapshot-id") request = {0x19, 0x03};
  else if (action == "clear")
    request = {0x14, static_cast<uint8_t>(o.group >> 16), static_cast<uint8_t>(o.group >> 8),
               static_cast<uint8_t>(o.group)};
  else
    request = {0x19, static_cast<uint8_t>(action == "snapshot" ? 0x04 : 0x06),
               static_cast<uint8_t>(o.dtc >> 16), static_cast<uint8_t>(o.dtc >> 8),
               static_cast<uint8_t>(o.dtc), static_cast<uint8_t>(o.record)};

  vxcli_uds_session session;
  if (vxcli_uds_session_from_options(count - 1, words + 1, &session) != 0) return 1;
  if (require_uds_session(&session) != 0) return 1;
  vxcli_uds_transport t;
  char message[256];
  if (vxcli_uds_open_transport(&session, "standalone-uds-dtc", &t, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  uint8_t r[VXCLI_UDS_BUFFER];
  uint32_t n = 0;
  uint32_t status = t.send(t.context, request.data(), static_cast<uint32_t>(request.size()),
                           static_cast<int32_t>(timeout));
  vxcli_uds_exchange ex{};
  if (status == 0) {
    vxcli_uds_receiver receiver{t.receive, t.now_ms, t.context};
    vxcli_uds_receive_final(&receiver, request[0], r, sizeof r, static_cast<int32_t>(timeout),
                            t.now_ms ? t.now_ms(t.context) : 0, &ex);
    status = ex.status;
    n = ex.length;
  }
  std::string error = t.error ? t.error(t.context) : "transport error";
  if (t.close) t.close(t.context);
  if (status != 0) {
    vxcli_print_error("uds dtc %s: no response (%s)", o.action, error.c_str());
    return 1;
  }
  if (vxcli_uds_is_negative(r, n)) {
    uint8_t nrc = n > 2 ? r[2] : 0;
    vxcli_print_error("Negative response: service=0x%02X, NRC=0x%02X (%s)", n > 1 ? r[1] : 0, nrc,
                      vxcli_uds_nrc_name(nrc));
    return 1;
  }
  const uint8_t positive = static_cast<uint8_t>(request[0] | 0x40);
  if (n < 1 || r[0] != positive || (request[0] == 0x19 && (n < 2 || r[1] != request[1]))) {
    vxcli_print_error("unexpected response to uds dtc %s: %s", o.action, vxcli_uds_hex(r, n).c_str());
    return 1;
  }
  if (action == "clear") {
    if (vxcli_json_mode()) printf("{\"status\":\"ok\",\"action\":\"clear\",\"group\":\"0x%06X\"}\n",
                            static_cast<uint32_t>(o.group));
    else printf("DTCs cleared (group 0x%06X)\n", static_cast<uint32_t>(o.group));
    return 0;
  }
  if (action == "count") {
    if (n < 6) {
      vxcli_print_error("unexpected response to uds dtc count: %s", vxcli_uds_hex(r, n).c_str());
      return 1;
    }
    unsigned number = static_cast<unsigned>(r[4] << 8 | r[5]);
    if (vxcli_json_mode())
      printf("{\"status\":\"ok\",\"action\":\"count\",\"mask\":\"0x%02X\",\"availability_mask\":\"0x%02X\","
             "\"format\":%u,\"count\":%u}\n",
             static_cast<unsigned>(o.mask), r[2], r[3], number);
    else if (g_config.format == VXCLI_FORMAT_CSV)
      printf("mask,availability_mask,count\n0x%02X,0x%02X,%u\n", static_cast<unsigned>(o.mask), r[2], number);
    else
      printf("%u DTC(s) match status mask 0x%02X (availability mask 0x%02X)\n", number,
             static_cast<unsigned>(o.mask), r[2]);
    return 0;
  }
  if (action == "snapshot-id") {
    if (n < 2 || (n - 2) % 4 != 0) {
      vxcli_print_error("unexpected response to uds dtc snapshot-id: %s", vxcli_uds_hex(r, n).c_str());
      return 1;
    }
    size_t records = (n - 2) / 4;
    if (vxcli_json_mode()) printf("{\"status\":\"ok\",\"action\":\"snapshot-id\",\"count\":%zu,\"snapshots\":[", records);
    else if (g_config.format == VXCLI_FORMAT_CSV) printf("dtc,code,record\n");
    else printf("%zu snapshot record(s)\n", records);
    for (size_t i = 0; i < records; i++) {
      const uint8_t* p = r + 2 + 4 * i;
      uint32_t dtc = static_cast<uint32_t>(p[0] << 16 | p[1] << 8 | p[2]);
      if (vxcli_json_mode())
        printf("%s{\"dtc\":\"0x%06X\",\"code\":\"%s\",\"record\":%u}", i ? "," : "", dtc,
               vxcli_uds_dtc_name(dtc).c_str(), p[3]);
      else if (g_config.format == VXCLI_FORMAT_CSV)
        printf("0x%06X,%s,%u\n", dtc, vxcli_uds_dtc_name(dtc).c_str(), p[3]);
      else
        printf("  0x%06X %s record %u\n", dtc, vxcli_uds_dtc_name(dtc).c_str(), p[3]);
    }
    if (vxcli_json_mode()) printf("]}\n");
    return 0;
  }
  if (action == "snapshot" || action == "extended") {
    if (n < 6) {
      vxcli_print_error("unexpected response to uds dtc %s: %s", o.action, vxcli_uds_hex(r, n).c_str());
      return 1;
    }
    print_record_answer(o.action, static_cast<uint32_t>(r[2] << 16 | r[3] << 8 | r[4]), r, n);
    return 0;
  }
  std::vector<vxcli_uds_dtc_record> list;
  uint8_t availability = 0;
  if (vxcli_uds_parse_dtc_list(r, n, &list, &availability) != 0) {
    vxcli_print_error("unexpected response to uds dtc %s: %s", o.action, vxcli_uds_hex(r, n).c_str());
    return 1;
  }
  print_dtc_list(o.action, list, availability, action == "hex");
  return 0;
}
