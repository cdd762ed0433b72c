// UDS endpoint resolution and the transport indirection.
#include "diag/uds_client.h"

#include <cstdio>
#include <cstring>

#include "cli/output.h"
#include "daemon/client.h"
#include "json/json.h"
#include "diag/diag_util.h"

vxcli_uds_session g_uds_session = {};

namespace {

vxcli_uds_transport_opener g_opener = vxcli_uds_open_device_transport;

}  // namespace

void vxcli_uds_set_transport_opener(vxcli_uds_transport_opener opener) {
  g_opener = opener ? opener : vxcli_uds_open_device_transport;
}

int vxcli_uds_open_transport(const vxcli_uds_session* session, const char* cursor_name,
                             vxcli_uds_transport* out, char* error_text, size_t error_size) {
  memset(out, 0, sizeof *out);
  return g_opener(session, cursor_name, out, error_text, error_size);
}

int vxcli_uds_session_apply_options(int count, char** words, vxcli_uds_session* out,
                                    std::string* error) {
  char message[200];
  if (!out->resolved && out->pad_byte == 0 && out->padding == 0) out->pad_byte = 0xCC;
  if (const char* channel = vxcli_get_option(count, words, "channel")) out->channel = channel;
  if (const char* bitrate = vxcli_get_option(count, words, "bitrate")) out->bitrate = bitrate;
  struct IdOption { const char* name; uint32_t* id; uint8_t* extended; };
  for (IdOption o : {IdOption{"request-id", &out->request_id, &out->request_extended},
                     IdOption{"response-id", &out->response_id, &out->response_extended}}) {
    const char* text = vxcli_get_option(count, words, o.name);
    if (!text) continue;
    uint32_t id = 0;
    if (!vxcli_diag_parse_u32(text, &id) || id == 0 || id > 0x1FFFFFFF) {
      snprintf(message, sizeof message, "--%s=%s is not a CAN identifier (0x1..0x1FFFFFFF)", o.name, text);
      *error = message;
      return 1;
    }
    *o.id = id;
    *o.extended = id > 0x7FF ? 1 : 0;
  }
  if (const char* flags = vxcli_get_option(count, words, "flags")) {
    if (strcmp(flags, "classic") == 0) {
      out->fd = 0;
      out->brs = 0;
    } else if (strcmp(flags, "fdf") == 0 || strcmp(flags, "fdf+brs") == 0) {
      out->fd = 1;
      out->brs = strcmp(flags, "fdf+brs") == 0 ? 1 : 0;
    } else {
      snprintf(message, sizeof message, "--flags must be classic or fdf (got '%s')", flags);
      *error = message;
      return 1;
    }
  }
  if (const char* padding = vxcli_get_option(count, words, "padding")) {
    uint32_t v = 0;
    if (strcmp(padding, "off") == 0 || strcmp(padding, "none") == 0) {
      out->padding = 0;
    } else if (!vxcli_diag_parse_u32(padding, &v) || v > 0xFF) {
      snprintf(message, sizeof message,
               "--padding must be a byte value such as 0xCC, or off (got '%s')", padding);
      *error = message;
      return 1;
    } else {
      out->padding = 1;
      out->pad_byte = static_cast<uint8_t>(v);
    }
  }
  out->resolved = (!out->channel.empty() && out->request_id && out->response_id) ? 1 : 0;
  return 0;
}

int vxcli_uds_session_from_options(int count, char** words, vxcli_uds_session* out) {
  *out = g_uds_session;
  std::string error;
  if (vxcli_uds_session_apply_options(count, words, out, &error) == 0) return 0;
  vxcli_print_error("%s", error.c_str());
  return 1;
}

const char* vxcli_uds_session_missing(const vxcli_uds_session* s) {
  if (s->channel.empty())
    return "missing required parameter: --channel (e.g. --channel=10356/1, or run 'uds config set' first)";
  if (!s->request_id)
    return "missing required parameter: --request-id (e.g. --request-id=0x791, or run 'uds config set' first)";
  if (!s->response_id)
    return "missing required parameter: --response-id (e.g. --response-id=0x799, or run 'uds config set' first)";
  return nullptr;
}

int require_uds_session(const vxcli_uds_session* s) {
  const char* missing = vxcli_uds_session_missing(s);
  if (!missing) return 0;
  vxcli_print_error("%s", missing);
  return 1;
}

uint32_t read_isotp_with_pending(const vxcli_uds_transport* transport, uint8_t service_id,
                                 uint8_t* buffer, uint32_t* length_in_out) {
  uint8_t response[VXCLI_UDS_BUFFER];
  vxcli_uds_receiver receiver{transport->receive, transport->now_ms, transport->context};
  uint64_t start = transport->now_ms ? transport->now_ms(transport->context) : 0;
  vxcli_uds_exchange ex;
  vxcli_uds_receive_final(&receiver, service_id, response, sizeof response, 5000, start, &ex);
  uint32_t n = ex.length < *length_in_out ? ex.length : *length_in_out;
  memcpy(buffer, response, n);
  *length_in_out = (ex.status == 0 || ex.receptions > 0) ? ex.length : 0;
  if (*length_in_out > n) *length_in_out = n;
  return ex.status;
}

namespace {

// Raw text of a top-level member (strings without their quotes); empty when absent.
std::string member(const char* doc, const vxcli_json_token* tokens, const char* key) {
  int at = vxcli_json_object_get(doc, tokens, 0, key);
  if (at < 0) return "";
  char text[256];
  if (vxcli_json_string(doc, &tokens[at], text, sizeof text) == 0) return text;
  return std::string(doc + tokens[at].start, static_cast<size_t>(tokens[at].end - tokens[at].start));
}

}  // namespace

bool vxcli_uds_session_load_from_daemon() {
  char request_words[3][8] = {"uds", "config", "get"};
  char* argv[] = {request_words[0], request_words[1], request_words[2]};
  std::string response(16384, '\0');
  if (vxcli_daemon_send_argv(3, argv, VXCLI_FORMAT_JSON, response.data(), response.size()) != 0) return false;
  response.resize(strlen(response.c_str()));
  vxcli_json_token tokens[64];
  if (vxcli_json_parse(response.c_str(), tokens, 64) < 1) return false;
  const char* doc = response.c_str();
  if (member(doc, tokens, "configured") != "true") return false;
  vxcli_uds_session s;
  s.channel = member(doc, tokens, "channel");
  uint32_t v = 0;
  s.request_id = vxcli_diag_parse_u32(member(doc, tokens, "request_id").c_str(), &v) ? v : 0;
  s.response_id = vxcli_diag_parse_u32(member(doc, tokens, "response_id").c_str(), &v) ? v : 0;
  s.request_extended = s.request_id > 0x7FF;
  s.response_extended = s.response_id > 0x7FF;
  s.fd = member(doc, tokens, "fd") == "true";
  s.brs = member(doc, tokens, "brs") == "true";
  s.padding = member(doc, tokens, "padding") == "true";
  s.pad_byte = vxcli_diag_parse_u32(member(doc, tokens, "pad_byte").c_str(), &v) ? static_cast<uint8_t>(v) : 0xCC;
  s.resolved = (!s.channel.empty() && s.request_id && s.response_id) ? 1 : 0;
  if (!s.resolved) return false;
  g_uds_session = s;
  return true;
}
