// isotp send, recv and ecu-sim over a directly opened channel.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "channel/channel.h"
#include "cli/output.h"
#include "diag/commands.h"
#include "diag/diag_util.h"
#include "diag/ecu_sim.h"
#include "diag/isotp_link.h"
#include "diag/uds.h"

namespace {

using Endpoint = vxcli_isotp_endpoint;

int read_endpoint(int count, char** words, Endpoint* e) {
  std::string error;
  if (vxcli_isotp_endpoint_from_words(count, words, e, &error) == 0) return 0;
  vxcli_print_error("%s", error.c_str());
  return 1;
}

volatile sig_atomic_t g_running = 1;
vxcli_isotp_link* volatile g_signal_link = nullptr;

void on_sigint(int) {
  g_running = 0;
  if (g_signal_link) vxcli_isotp_link_cancel(g_signal_link);
}

bool json_mode() {
  return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL;
}

// Channel and link for one command; closed in reverse order on return.
struct Session {
  VXHandle channel = nullptr;
  vxcli_isotp_link link;
  bool link_open = false;
  ~Session() {
    g_signal_link = nullptr;
    if (link_open) vxcli_isotp_link_close(&link);
    if (channel) VX_Close(channel);
  }
  int open(const Endpoint& e, int role, const char* cursor) {
    channel = vxcli_open_can_channel_ex(e.channel, e.bitrate, VX_CAN_MODE_NORMAL, 0, nullptr);
    if (!channel) {
      vxcli_print_error("Failed to open channel %s", e.channel);
      return 1;
    }
    if (vxcli_isotp_endpoint_link_open(e, role, &link, channel, -1, cursor) != 0) {
      vxcli_print_error("Failed to initialize software ISO-TP transport");
      return 1;
    }
    link_open = true;
    return 0;
  }
};

void print_transfer(const char* direction, const Endpoint& e, uint32_t id, const uint8_t* data,
                    uint32_t length, const vxcli_isotp_stats& stats) {
  fputs(vxcli_isotp_render_transfer(direction, e.channel, id, e.fd, data, length, stats, g_config.format).c_str(),
        stdout);
}

void install_sigint(vxcli_isotp_link* link) {
  g_running = 1;
  g_signal_link = link;
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_sigint;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
}

}  // namespace

int vxcli_isotp_endpoint_from_words(int count, char** words, vxcli_isotp_endpoint* e, std::string* error) {
  char message[200];
  auto fail = [&]() {
    *error = message;
    return 1;
  };
  *e = vxcli_isotp_endpoint{};
  e->channel = vxcli_get_option(count, words, "channel");
  if (!e->channel || !*e->channel) {
    snprintf(message, sizeof message, "--channel is required");
    return fail();
  }
  e->bitrate = vxcli_get_option(count, words, "bitrate");
  struct Id { const char* name; uint32_t* out; };
  for (Id id : {Id{"reqid", &e->reqid}, Id{"respid", &e->respid}}) {
    const char* text = vxcli_get_option(count, words, id.name);
    if (!text) {
      snprintf(message, sizeof message, "--%s is required", id.name);
      return fail();
    }
    if (!vxcli_diag_parse_u32(text, id.out) || *id.out > 0x1FFFFFFF) {
      snprintf(message, sizeof message, "--%s=%s is not a CAN identifier (0x0..0x1FFFFFFF)", id.name, text);
      return fail();
    }
  }
  if (const char* flags = vxcli_get_option(count, words, "flags")) {
    if (strcmp(flags, "fdf") == 0 || strcmp(flags, "fdf+brs") == 0) {
      e->fd = true;
      e->brs = strcmp(flags, "fdf+brs") == 0;
    } else if (strcmp(flags, "classic") != 0) {
      snprintf(message, sizeof message, "--flags must be classic or fdf (got '%s')", flags);
      return fail();
    }
  }
  if (const char* padding = vxcli_get_option(count, words, "padding")) {
    uint32_t v = 0;
    if (!vxcli_diag_parse_u32(padding, &v) || v > 0xFF) {
      snprintf(message, sizeof message, "--padding must be a byte value such as 0xCC (got '%s')", padding);
      return fail();
    }
    e->padding = 1;
    e->pad_byte = static_cast<uint8_t>(v);
  }
  if (vxcli_diag_int_option_text(count, words, "timeout", 0, 600000, &e->timeout, error) != 0) return 1;
  if (vxcli_diag_int_option_text(count, words, "stmin", 0, 0xFF, &e->st_min, error) != 0) return 1;
  if (vxcli_diag_int_option_text(count, words, "block-size", 0, 0xFF, &e->block_size, error) != 0) return 1;
  return 0;
}

VXMessage vxcli_isotp_template(uint32_t id, bool extended, bool fd, bool brs) {
  VXMessage m;
  memset(&m, 0, sizeof m);
  m.header = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN & 0xFFFF);
  m.length = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN >> 16);
  m.id = vxcli_isotp_wire_id(id, extended);
  m.control = static_cast<uint8_t>((fd ? 15 : 8) | (extended ? VX_CTRL_IDE : 0) |
                                   (fd ? VX_CTRL_EDL : 0) | (fd && brs ? VX_CTRL_BRS : 0));
  return m;
}

int vxcli_isotp_endpoint_link_open(const vxcli_isotp_endpoint& e, int role, vxcli_isotp_link* link,
                                   VXHandle channel, int broker_slot, const char* cursor) {
  vxcli_isotp_link_params p;
  memset(&p, 0, sizeof p);
  p.role = role;
  p.request_template = vxcli_isotp_template(e.reqid, e.reqid > 0x7FF, e.fd, e.brs);
  p.response_template = vxcli_isotp_template(e.respid, e.respid > 0x7FF, e.fd, e.brs);
  p.st_min = static_cast<uint8_t>(e.st_min);
  p.block_size = static_cast<uint8_t>(e.block_size < 0 ? 0 : e.block_size);
  p.padding = static_cast<uint8_t>(e.padding);
  p.pad_byte = e.pad_byte;
  if (vxcli_isotp_link_open(link, channel, broker_slot, &p, cursor) != 0) return -1;
  // A block size of 0 asked for explicitly means "no further flow control".
  if (e.block_size == 0) link->config.block_size = 0;
  return 0;
}

int vxcli_isotp_parse_payload(const char* text, std::vector<uint8_t>* out, std::string* error) {
  if (!text) {
    *error = "--data is required";
    return 1;
  }
  out->assign(VXCLI_ISOTP_MAX_PAYLOAD + 1, 0);
  char message[200];
  char* one[] = {const_cast<char*>(text)};
  int n = vxcli_uds_parse_hex_words(1, one, out->data(), out->size(), message, sizeof message);
  if (n <= 0 || n > static_cast<int>(VXCLI_ISOTP_MAX_PAYLOAD)) {
    *error = std::string("--data must hold 1..4095 hex bytes (") + (n < 0 ? message : "empty") + ")";
    return 1;
  }
  out->resize(static_cast<size_t>(n));
  return 0;
}

std::string vxcli_isotp_render_transfer(const char* direction, const char* channel, uint32_t id, bool fd,
                                        const uint8_t* data, uint32_t length, const vxcli_isotp_stats& stats,
                                        uint32_t format) {
  std::string hex = vxcli_diag_hex_compact(data, length);
  char head[512];
  if (format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL) {
    snprintf(head, sizeof head,
             "{\"status\":\"ok\",\"direction\":\"%s\",\"channel\":\"%s\",\"id\":\"0x%X\",\"bytes\":%u,"
             "\"frames_sent\":%u,\"frames_received\":%u,\"flow_control_frames\":%u,\"wait_frames\":%u,"
             "\"fd\":%s,\"data\":\"",
             direction, vxcli_diag_json_escape(channel).c_str(), id, length, stats.frames_sent,
             stats.frames_received, stats.flow_control_frames, stats.wait_frames, fd ? "true" : "false");
    return head + hex + "\"}\n";
  }
  if (format == VXCLI_FORMAT_CSV) {
    snprintf(head, sizeof head, "direction,channel,id,bytes,frames_sent,frames_received,data\n%s,%s,0x%X,%u,%u,%u,",
             direction, channel, id, length, stats.frames_sent, stats.frames_received);
    return head + hex + "\n";
  }
  snprintf(head, sizeof head, "ISOTP %s %u bytes on %s id=0x%X (%u frame(s) sent, %u received): ",
           strcmp(direction, "tx") == 0 ? "TX" : "RX", length, channel, id, stats.frames_sent,
           stats.frames_received);
  return head + vxcli_uds_hex(data, length) + "\n";
}

int vxcli_isotp_send_command(int count, char** words) {
  Endpoint e;
  if (read_endpoint(count, words, &e) != 0) return 1;
  std::vector<uint8_t> data;
  std::string error;
  if (vxcli_isotp_parse_payload(vxcli_get_option(count, words, "data"), &data, &error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  const int n = static_cast<int>(data.size());
  Session s;
  if (s.open(e, VXCLI_ISOTP_ROLE_TESTER, "isotp-send") != 0) return 1;
  install_sigint(&s.link);
  uint32_t status = vxcli_isotp_link_send(&s.link, data.data(), static_cast<uint32_t>(n),
                                          static_cast<int32_t>(e.timeout));
  if (status != 0) {
    vxcli_print_error("ISO-TP send failed: %s (%s)", vxcli_isotp_link_error(&s.link),
                      vxcli_status_to_string(status));
    return 1;
  }
  print_transfer("tx", e, e.reqid, data.data(), static_cast<uint32_t>(n), s.link.stats);
  return 0;
}

int vxcli_isotp_recv_command(int count, char** words) {
  Endpoint e;
  if (read_endpoint(count, words, &e) != 0) return 1;
  int64_t payloads = 1;
  if (vxcli_diag_int_option(count, words, "count", 1, 1000000, &payloads) != 0) return 1;
  Session s;
  if (s.open(e, VXCLI_ISOTP_ROLE_TESTER, "isotp-recv") != 0) return 1;
  install_sigint(&s.link);
  std::vector<uint8_t> buffer(VXCLI_ISOTP_MAX_PAYLOAD);
  for (int64_t i = 0; i < payloads && g_running; i++) {
    uint32_t length = static_cast<uint32_t>(buffer.size());
    uint32_t status = vxcli_isotp_link_receive(&s.link, buffer.data(), &length,
                                               static_cast<int32_t>(e.timeout));
    if (status != 0) {
      if (s.link.last_status == VXCLI_ISOTP_TIMEOUT)
        vxcli_print_error("no ISO-TP message from 0x%X within %lld ms", e.respid,
                          static_cast<long long>(e.timeout));
      else
        vxcli_print_error("ISO-TP receive failed: %s (%s)", vxcli_isotp_link_error(&s.link),
                          vxcli_status_to_string(status));
      return 1;
    }
    print_transfer("rx", e, e.respid, buffer.data(), length, s.link.stats);
    fflush(stdout);
  }
  return 0;
}

int vxcli_isotp_ecu_sim_command(int count, char** words) {
  Endpoint e;
  if (read_endpoint(count, words, &e) != 0) return 1;
  int64_t max = 0;
  if (vxcli_diag_int_option(count, words, "max", 1, 1000000000, &max) != 0) return 1;
  const char* file = vxcli_get_option(count, words, "responses");
  std::vector<vxcli_ecu_rule> rules;
  if (file) {
    FILE* f = fopen(file, "rb");
    if (!f) {
      vxcli_print_error("cannot open responses file '%s': %s", file, strerror(errno));
      return 1;
    }
    std::string text;
    char buf[4096];
    size_t got;
    while ((got = fread(buf, 1, sizeof buf, f)) > 0 && text.size() < (1u << 20)) text.append(buf, got);
    fclose(f);
    char message[300];
    size_t ignored = 0;
    if (vxcli_ecu_sim_parse_rules(text, &rules, &ignored, message, sizeof message) != 0) {
      vxcli_print_error("%s: %s", file, message);
      return 1;
    }
    if (ignored)
      vxcli_print_warning("%zu rule(s) beyond the first %zu ignored", ignored, VXCLI_ECU_SIM_MAX_RULES);
  }
  if (rules.empty()) {
    vxcli_print_error("No response rules loaded");
    return 1;
  }
  Session s;
  if (s.open(e, VXCLI_ISOTP_ROLE_ECU, "isotp") != 0) return 1;
  install_sigint(&s.link);
  char max_text[24];
  if (max > 0) snprintf(max_text, sizeof max_text, "%lld", static_cast<long long>(max));
  else snprintf(max_text, sizeof max_text, "unlimited");
  const bool text_mode = !json_mode();
  if (text_mode)
    printf("ECU-SIM: listening on ch%s reqid=0x%X respid=0x%X (%d rules, max=%s)\n", e.channel, e.reqid,
           e.respid, static_cast<int>(rules.size()), max_text);
  else
    printf("{\"status\":\"ok\",\"event\":\"listening\",\"channel\":\"%s\",\"reqid\":\"0x%X\",\"respid\":\"0x%X\","
           "\"rules\":%d,\"max\":\"%s\"}\n",
           vxcli_diag_json_escape(e.channel).c_str(), e.reqid, e.respid, static_cast<int>(rules.size()), max_text);
  fflush(stdout);

  int exchanges = 0, errors = 0;
  std::vector<uint8_t> request(VXCLI_ISOTP_MAX_PAYLOAD);
  while (g_running && (max == 0 || exchanges < max)) {
    uint32_t length = static_cast<uint32_t>(request.size());
    // Short waits keep the loop responsive to SIGINT even on a silent bus.
    uint32_t status = vxcli_isotp_link_receive(&s.link, request.data(), &length, 250);
    if (status != 0) {
      int why = s.link.last_status;
      if (why == VXCLI_ISOTP_TIMEOUT) continue;
      if (why == VXCLI_ISOTP_CANCELLED) break;
      if (why == VXCLI_ISOTP_IO_ERROR) {
        vxcli_print_error("ECU-SIM: receive failed: %s", vxcli_status_to_string(status));
        errors++;
        break;
      }
      fprintf(stderr, "ECU-SIM: dropped malformed transfer (%s)\n", vxcli_isotp_link_error(&s.link));
      continue;
    }
    exchanges++;
    const vxcli_ecu_rule* rule = vxcli_ecu_sim_match(rules, request.data(), length);
    std::vector<std::vector<uint8_t>> responses;
    if (rule) {
      responses = vxcli_ecu_sim_responses(*rule, request.data(), length);
    } else {
      responses.push_back({0x7F, request[0], 0x11});
      if (text_mode)
        printf("ECU-SIM: no rule for %d-byte request (SID=0x%02X), sent NRC\n", static_cast<int>(length),
               request[0]);
    }
    std::string sent;
    for (const auto& r : responses) {
      uint32_t tx = vxcli_isotp_link_send(&s.link, r.data(), static_cast<uint32_t>(r.size()), 2000);
      if (tx != 0) {
        fprintf(stderr, "ECU-SIM: response send failed: %s\n", vxcli_isotp_link_error(&s.link));
        errors++;
        break;
      }
      if (!sent.empty()) sent += " / ";
      sent += vxcli_uds_hex(r.data(), r.size());
    }
    if (json_mode()) {
      printf("{\"status\":\"ok\",\"event\":\"exchange\",\"index\":%d,\"request\":\"%s\",\"responses\":%zu,"
             "\"matched\":%s}\n",
             exchanges, vxcli_diag_hex_compact(request.data(), length).c_str(), responses.size(),
             rule ? "true" : "false");
    } else if (rule) {
      printf("ECU-SIM: #%d RX %s -> %s\n", exchanges, vxcli_uds_hex(request.data(), length).c_str(),
             responses.empty() ? "(no response)" : sent.c_str());
    }
    fflush(stdout);
  }
  if (text_mode)
    printf("ECU-SIM: stopped after %d exchanges\n", exchanges);
  else
    printf("{\"status\":\"%s\",\"event\":\"stopped\",\"exchanges\":%d,\"errors\":%d}\n", errors ? "error" : "ok",
           exchanges, errors);
  fflush(stdout);
  return errors ? 1 : 0;
}
