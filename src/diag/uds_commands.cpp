// uds request, unlock, download, present send and discover.
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "cli/output.h"
#include "diag/commands.h"
#include "diag/diag_util.h"
#include "diag/image.h"
#include "diag/seedkey.h"
#include "diag/services.h"
#include "diag/isotp.h"
#include "diag/uds_client.h"

namespace {

bool json_mode() {
  return g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL;
}

std::string bytes_text(const uint8_t* bytes, size_t length) {
  std::string s;
  char b[4];
  for (size_t i = 0; i < length; i++) {
    snprintf(b, sizeof b, "%02X ", bytes[i]);
    s += b;
  }
  return s;
}

// Closes the transport when the command returns, whatever path it takes.
struct TransportGuard {
  vxcli_uds_transport t{};
  bool open = false;
  ~TransportGuard() {
    if (open && t.close) t.close(t.context);
  }
};

int open_session_transport(int count, char** words, const char* cursor, vxcli_uds_session* session,
                           TransportGuard* guard) {
  if (vxcli_uds_session_from_options(count, words, session) != 0) return 1;
  if (require_uds_session(session) != 0) return 1;
  char message[256];
  if (vxcli_uds_open_transport(session, cursor, &guard->t, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  guard->open = true;
  return 0;
}

const char* transport_error(const vxcli_uds_transport* t) {
  return t->error ? t->error(t->context) : "transport error";
}

// Builds the request bytes of "uds request" from positional words or --data.
int build_request(int count, char** words, std::vector<uint8_t>* out, std::string* error) {
  std::vector<char*> positional =
      vxcli_diag_positionals(count, words, {"dry-run", "suppress-positive-response"});
  const char* data = vxcli_get_option(count, words, "data");
  char message[300];
  uint8_t request[VXCLI_ISOTP_MAX_PAYLOAD + 1];
  auto fail = [&](const char* format, const char* what) {
    snprintf(message, sizeof message, format, what);
    *error = message;
    return 1;
  };
  if (data && !positional.empty()) return fail("%s", "--data cannot be combined with positional request bytes");
  if (data) {
    char* one[] = {const_cast<char*>(data)};
    int n = vxcli_uds_parse_hex_words(1, one, request, sizeof request, message, sizeof message);
    if (n <= 0) return fail("Unknown service or invalid data: %s", data);
    out->assign(request, request + n);
    return 0;
  }
  if (positional.empty()) return fail("%s", "usage: uds request <SERVICE_OR_HEX> [PARAMS...]");
  int n = vxcli_uds_parse_hex_words(static_cast<int>(positional.size()), positional.data(), request,
                                    sizeof request, message, sizeof message);
  if (n > 0) {
    out->assign(request, request + n);
    return 0;
  }
  // Not hex: a named service followed by hex parameters.
  std::vector<vxcli_uds_service> services;
  std::string source;
  const vxcli_uds_service* service = nullptr;
  if (vxcli_uds_services_current(&services, &source, message, sizeof message) == 0)
    service = vxcli_uds_services_find(services, positional[0]);
  if (!service) return fail("Unknown service or invalid data: %s", positional[0]);
  request[0] = service->id;
  size_t fixed = service->data.size();
  memcpy(request + 1, service->data.data(), fixed);
  int params = 0;
  if (positional.size() > 1) {
    params = vxcli_uds_parse_hex_words(static_cast<int>(positional.size() - 1), positional.data() + 1,
                                       request + 1 + fixed, sizeof request - 1 - fixed, message,
                                       sizeof message);
    if (params < 0) {
      std::string why = message;
      return fail("Unknown service or invalid data: %s", why.c_str());
    }
  }
  out->assign(request, request + 1 + fixed + params);
  return 0;
}

}  // namespace

int vxcli_uds_request_plan_from_words(int count, char** words, vxcli_uds_request_plan* plan,
                                      std::string* error) {
  plan->request.clear();
  plan->suppressed = 0;
  plan->timeout_ms = 5000;
  plan->dry_run = vxcli_has_flag(count, words, "dry-run");
  if (build_request(count, words, &plan->request, error) != 0) return 1;
  int64_t timeout = 5000;
  if (vxcli_diag_int_option_text(count, words, "timeout", 1, 600000, &timeout, error) != 0) return 1;
  plan->timeout_ms = static_cast<int32_t>(timeout);
  char message[200];
  if (vxcli_uds_prepare_suppression(plan->request.data(), plan->request.size(),
                                    vxcli_has_flag(count, words, "suppress-positive-response"),
                                    &plan->suppressed, message, sizeof message) != 0) {
    *error = std::string("--suppress-positive-response is invalid: ") + message;
    return 1;
  }
  return 0;
}

void vxcli_uds_request_exchange(const vxcli_uds_transport* t, const vxcli_uds_request_plan& plan,
                                vxcli_uds_request_outcome* o) {
  o->send_failed = false;
  o->received = false;
  o->response.clear();
  o->pending = 0;
  o->transport_error.clear();
  const uint32_t length = static_cast<uint32_t>(plan.request.size());
  o->status = t->send(t->context, plan.request.data(), length, plan.timeout_ms);
  if (o->status != 0) {
    o->send_failed = true;
    o->transport_error = transport_error(t);
    o->state = "send_failed";
    o->rc = 1;
    return;
  }
  if (g_config.verbose)
    fprintf(stderr, "UDS ISOTP TX OK (%u bytes), waiting for response...\n", length);
  std::vector<uint8_t> response(VXCLI_UDS_BUFFER);
  vxcli_uds_receiver receiver{t->receive, t->now_ms, t->context};
  uint64_t start = t->now_ms ? t->now_ms(t->context) : 0;
  vxcli_uds_exchange ex;
  vxcli_uds_receive_final(&receiver, plan.request[0], response.data(), VXCLI_UDS_BUFFER,
                          plan.timeout_ms, start, &ex);
  o->status = ex.status;
  o->pending = ex.pending;
  o->received = ex.status == 0;
  if (o->received) o->response.assign(response.begin(), response.begin() + ex.length);
  else o->transport_error = transport_error(t);
  if (!o->received) {
    o->state = plan.suppressed ? "response_suppressed" : "no_response";
    o->rc = plan.suppressed ? 0 : 1;
  } else if (vxcli_uds_is_negative(o->response.data(), ex.length)) {
    o->state = "negative_response";
    o->rc = 1;
  } else {
    o->state = "positive_response";
    o->rc = 0;
  }
}

std::string vxcli_uds_request_render(const vxcli_uds_request_plan& plan,
                                     const vxcli_uds_request_outcome* o, uint32_t format) {
  const bool json = format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL;
  const int length = static_cast<int>(plan.request.size());
  const std::string request_hex = vxcli_diag_hex_compact(plan.request.data(), plan.request.size());
  std::string text;
  char line[512];
  if (!o) {
    if (json) {
      snprintf(line, sizeof line,
               "{\"status\":\"ok\",\"dry_run\":true,\"req_bytes\":%d,\"suppress_positive_response\":%s,"
               "\"request\":\"%s\"}\n",
               length, plan.suppressed ? "true" : "false", request_hex.c_str());
      return line;
    }
    snprintf(line, sizeof line, "DRY-RUN (%d bytes): ", length);
    return line + bytes_text(plan.request.data(), plan.request.size()) + "\n";
  }
  if (o->send_failed) return "";
  const uint32_t resp_bytes = o->received ? static_cast<uint32_t>(o->response.size()) : 0;
  const std::string response_hex = vxcli_diag_hex_compact(o->response.data(), resp_bytes);
  if (json) {
    snprintf(line, sizeof line,
             "{\"status\":\"%s\",\"state\":\"%s\",\"req_bytes\":%d,\"resp_bytes\":%u,"
             "\"response_received\":%s,\"suppress_positive_response\":%s,\"request\":\"",
             o->rc == 0 ? "ok" : "error", o->state, length, resp_bytes, o->received ? "true" : "false",
             plan.suppressed ? "true" : "false");
    text = line + request_hex + "\",\"response\":\"" + response_hex + "\"";
    if (o->pending) text += ",\"pending_responses\":" + std::to_string(o->pending);
    if (o->received && o->rc != 0 && resp_bytes >= 3) {
      snprintf(line, sizeof line, ",\"nrc\":\"0x%02X\",\"nrc_name\":\"%s\"", o->response[2],
               vxcli_uds_nrc_name(o->response[2]));
      text += line;
    }
    if (!o->received) {
      text += ",\"transport_status\":" + std::to_string(o->status);
      if (o->rc != 0)
        text += ",\"message\":\"" + vxcli_diag_json_escape(vxcli_uds_request_error(plan, *o).c_str()) + "\"";
    }
    return text + "}\n";
  }
  if (format == VXCLI_FORMAT_CSV) {
    text = "direction,bytes,data\nTX," + std::to_string(length) + "," + request_hex + "\n";
    if (o->received) text += "RX," + std::to_string(resp_bytes) + "," + response_hex + "\n";
    return text;
  }
  snprintf(line, sizeof line, "TX (%d bytes): ", length);
  text = line + bytes_text(plan.request.data(), plan.request.size()) + "\n";
  if (o->received) {
    snprintf(line, sizeof line, "RX (%u bytes): ", resp_bytes);
    text += line + bytes_text(o->response.data(), resp_bytes) + "\n";
  } else if (plan.suppressed) {
    text += "No response (positive response suppressed)\n";
  }
  return text;
}

std::string vxcli_uds_request_error(const vxcli_uds_request_plan& plan,
                                    const vxcli_uds_request_outcome& o) {
  char line[512];
  if (o.rc == 0) return "";
  if (o.send_failed) {
    snprintf(line, sizeof line, "UDS request send failed: %s (%s)", vxcli_status_to_string(o.status),
             o.transport_error.c_str());
  } else if (!o.received) {
    snprintf(line, sizeof line, "UDS request sent %d bytes, no response (%s)",
             static_cast<int>(plan.request.size()), o.transport_error.c_str());
  } else {
    const size_t n = o.response.size();
    snprintf(line, sizeof line, "Negative response: service=0x%02X, NRC=0x%02X", n > 1 ? o.response[1] : 0,
             n > 2 ? o.response[2] : 0);
  }
  return line;
}

int vxcli_uds_request_command(int count, char** words) {
  vxcli_uds_request_plan plan;
  std::string error;
  if (vxcli_uds_request_plan_from_words(count, words, &plan, &error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  if (plan.dry_run) {
    fputs(vxcli_uds_request_render(plan, nullptr, g_config.format).c_str(), stdout);
    return 0;
  }
  vxcli_uds_session session;
  if (vxcli_uds_session_from_options(count, words, &session) != 0) return 1;
  if (require_uds_session(&session) != 0) return 1;
  TransportGuard guard;
  char message[256];
  if (vxcli_uds_open_transport(&session, "standalone-uds-request", &guard.t, message,
                               sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  guard.open = true;
  if (g_config.verbose)
    fprintf(stderr,
            "UDS ISOTP: ch=%s reqid=0x%X respid=0x%X padding=%d padval=0x%02X testerTimeout.b=%d "
            "ecuTimeout.b=%d reqlen=%d timeout=%d\n",
            session.channel.c_str(), session.request_id, session.response_id, session.padding,
            session.pad_byte, plan.timeout_ms, plan.timeout_ms, static_cast<int>(plan.request.size()),
            plan.timeout_ms);
  vxcli_uds_request_outcome outcome;
  vxcli_uds_request_exchange(&guard.t, plan, &outcome);
  // JSON carries the failure in its own document.
  fputs(vxcli_uds_request_render(plan, &outcome, g_config.format).c_str(), stdout);
  const bool json = json_mode();
  if (outcome.rc != 0 && !(json && !outcome.send_failed))
    vxcli_print_error("%s", vxcli_uds_request_error(plan, outcome).c_str());
  return outcome.rc;
}

int vxcli_uds_unlock_plan_from_words(int count, char** words, uint32_t* level, std::string* algo,
                                     std::string* error) {
  char message[300];
  const char* level_text = vxcli_get_option(count, words, "level");
  if (!level_text) {
    *error = "--level is required";
    return 1;
  }
  if (!vxcli_diag_parse_u32(level_text, level) || *level < 1 || *level > 126) {
    snprintf(message, sizeof message, "--level %s out of range (expected e.g. 0x11)", level_text);
    *error = message;
    return 1;
  }
  const char* text = vxcli_get_option(count, words, "algo");
  if (!text || !*text) {
    *error = "--algo is required (path to security DLL/.so)";
    return 1;
  }
  *algo = text;
  return 0;
}

int vxcli_uds_unlock_run(const vxcli_uds_transport* t, const vxcli_seedkey* library, uint32_t level,
                         const std::string& algo, uint32_t format, std::string* body, std::string* error) {
  char message[512];
  auto fail = [&](const char* text) {
    *error = text;
    return 1;
  };
  const uint8_t seed_sub = static_cast<uint8_t>(level | 1);
  const uint8_t seed_request[2] = {0x27, seed_sub};
  if (t->send(t->context, seed_request, 2, 5000) != 0) {
    snprintf(message, sizeof message, "seed request TX failed: %s", transport_error(t));
    return fail(message);
  }
  uint8_t response[64];
  uint32_t length = sizeof response;
  uint32_t status = read_isotp_with_pending(t, 0x27, response, &length);
  if (status != 0 || length < 3 || response[0] != 0x67) {
    snprintf(message, sizeof message, "invalid seed response (expected 67 %02X)", seed_sub);
    return fail(message);
  }
  const uint32_t seed_length = length - 2;
  uint8_t key[VXCLI_SEEDKEY_MAX_KEY];
  uint32_t key_length = 0;
  if (vxcli_seedkey_compute(library, response + 2, seed_length, level, key, &key_length, message,
                            sizeof message) != 0)
    return fail(message);
  // The key sub-function is the level with bit 0 cleared, not seed + 1.
  uint8_t key_request[2 + VXCLI_SEEDKEY_MAX_KEY] = {0x27, static_cast<uint8_t>(level & ~1u)};
  memcpy(key_request + 2, key, key_length);
  if (t->send(t->context, key_request, 2 + key_length, 5000) != 0) {
    snprintf(message, sizeof message, "send-key TX failed: %s", transport_error(t));
    return fail(message);
  }
  length = sizeof response;
  status = read_isotp_with_pending(t, 0x27, response, &length);
  if (status != 0 || length < 2 || response[0] != 0x67)
    return fail("security unlock rejected (key not accepted by ECU)");
  if (format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL)
    snprintf(message, sizeof message, "{\"status\":\"ok\",\"level\":%u,\"algo\":\"%s\",\"seed_size\":%u,\"key_size\":%u}\n",
             level, vxcli_diag_json_escape(algo.c_str()).c_str(), seed_length, key_length);
  else
    snprintf(message, sizeof message, "Security level 0x%X unlocked via %s (seed=%u bytes, key=%u bytes)\n", level,
             algo.c_str(), seed_length, key_length);
  *body = message;
  return 0;
}

int vxcli_uds_unlock_command(int count, char** words) {
  uint32_t level = 0;
  std::string algo, error;
  if (vxcli_uds_unlock_plan_from_words(count, words, &level, &algo, &error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  char message[512];
  vxcli_seedkey library;
  if (vxcli_seedkey_load(algo.c_str(), &library, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  struct LibraryGuard {
    vxcli_seedkey* l;
    ~LibraryGuard() { vxcli_seedkey_close(l); }
  } library_guard{&library};

  vxcli_uds_session session;
  TransportGuard guard;
  if (open_session_transport(count, words, "standalone-uds-security-access", &session, &guard) != 0)
    return 1;
  std::string body;
  if (vxcli_uds_unlock_run(&guard.t, &library, level, algo, g_config.format, &body, &error) != 0) {
    vxcli_print_error("%s", error.c_str());
    return 1;
  }
  fputs(body.c_str(), stdout);
  return 0;
}

int vxcli_uds_download_command(int count, char** words) {
  const char* file = vxcli_get_option(count, words, "file");
  if (!file || !*file) {
    vxcli_print_error("--file is required (raw binary, Intel HEX or Motorola S-record image)");
    return 1;
  }
  int format = vxcli_image_parse_format(vxcli_get_option(count, words, "format"));
  if (format < 0) {
    vxcli_print_error("--format must be auto, bin, hex or srec");
    return 1;
  }
  int64_t alf = 0x44, address = -1, size = 0, maxblock = 0;
  if (vxcli_diag_int_option(count, words, "alf", 0, 0xFF, &alf) != 0) return 1;
  char message[256];
  if (vxcli_uds_check_alf(static_cast<uint8_t>(alf), message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (vxcli_diag_int_option(count, words, "addr", 0, 0xFFFFFFFF, &address) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "size", 1, 0xFFFFFFFF, &size) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "maxblock", 1, 0xFFFFFFFF, &maxblock) != 0) return 1;

  std::vector<vxcli_image_segment> segments;
  if (format == VXCLI_IMAGE_AUTO) {
    // Raw binaries need an address; hex formats carry their own.
    FILE* probe = fopen(file, "rb");
    std::string head;
    if (probe) {
      char b[64];
      size_t n = fread(b, 1, sizeof b, probe);
      head.assign(b, n);
      fclose(probe);
    }
    format = vxcli_image_detect(file, head);
  }
  if (format == VXCLI_IMAGE_BINARY && address < 0) {
    vxcli_print_error("--addr is required for a raw binary image");
    return 1;
  }
  if (vxcli_image_load(file, format, address < 0 ? 0 : static_cast<uint32_t>(address),
                       static_cast<uint32_t>(size), &segments, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  if (segments.empty()) {
    vxcli_print_error("image contains no data segments");
    return 1;
  }
  std::vector<std::vector<uint8_t>> download_requests;
  uint32_t total = 0;
  for (const auto& s : segments) {
    std::vector<uint8_t> req;
    if (vxcli_uds_build_request_download(static_cast<uint8_t>(alf), s.address,
                                         static_cast<uint32_t>(s.data.size()), &req, message,
                                         sizeof message) != 0) {
      vxcli_print_error("%s", message);
      return 1;
    }
    download_requests.push_back(std::move(req));
    total += static_cast<uint32_t>(s.data.size());
  }

  vxcli_uds_session session;
  TransportGuard guard;
  if (open_session_transport(count, words, "standalone-uds-download", &session, &guard) != 0) return 1;
  const vxcli_uds_transport* t = &guard.t;
  const bool json = json_mode();
  uint32_t done = 0, blocks = 0;
  std::vector<uint8_t> block;
  for (size_t si = 0; si < segments.size(); si++) {
    const auto& seg = segments[si];
    const auto& req = download_requests[si];
    uint8_t response[64];
    uint32_t length = sizeof response;
    uint32_t status = t->send(t->context, req.data(), static_cast<uint32_t>(req.size()), 5000);
    if (status == 0) status = read_isotp_with_pending(t, 0x34, response, &length);
    if (status != 0 || length < 1) {
      vxcli_print_error("no/invalid response to RequestDownload (expected 74 <lf> <maxBlock>): %s",
                        transport_error(t));
      return 1;
    }
    if (response[0] == 0x7F) {
      vxcli_print_error("ECU rejected RequestDownload (NRC 0x%02X)", length > 2 ? response[2] : 0);
      return 1;
    }
    if (response[0] != 0x74) {
      vxcli_print_error("no/invalid response to RequestDownload (expected 74 <lf> <maxBlock>)");
      return 1;
    }
    uint32_t chunk = 0;
    if (vxcli_uds_download_chunk(response, length, static_cast<uint32_t>(maxblock), &chunk, message,
                                 sizeof message) != 0) {
      vxcli_print_error("%s", message);
      return 1;
    }
    uint8_t counter = 0;
    for (size_t offset = 0; offset < seg.data.size(); offset += chunk) {
      size_t n = seg.data.size() - offset < chunk ? seg.data.size() - offset : chunk;
      counter = vxcli_uds_next_block_counter(counter);
      block.assign({0x36, counter});
      block.insert(block.end(), seg.data.begin() + offset, seg.data.begin() + offset + n);
      length = sizeof response;
      status = t->send(t->context, block.data(), static_cast<uint32_t>(block.size()), 5000);
      if (status == 0) status = read_isotp_with_pending(t, 0x36, response, &length);
      const char* problem = nullptr;
      if (status != 0 || length < 1) problem = "no response";
      else if (response[0] == 0x7F) problem = "ECU NRC during TransferData";
      else if (response[0] != 0x76 || length < 2 || response[1] != counter)
        problem = "blockSequenceCounter mismatch";
      if (problem) {
        if (status == 0 && length > 2 && response[0] == 0x7F)
          vxcli_print_error("TransferData seq=%u rejected: %s (NRC 0x%02X)", counter, problem, response[2]);
        else
          vxcli_print_error("TransferData seq=%u rejected: %s", counter, problem);
        return 1;
      }
      done += static_cast<uint32_t>(n);
      blocks++;
      int percent = total ? static_cast<int>(static_cast<uint64_t>(done) * 100 / total) : 100;
      if (json) {
        printf("{\"status\":\"ok\",\"event\":\"progress\",\"segment\":%d,\"block\":%u,\"total_bytes\":%u,"
               "\"done_bytes\":%u,\"percent\":%d}\n",
               static_cast<int>(si + 1), blocks, total, done, percent);
      } else if (g_config.format != VXCLI_FORMAT_CSV) {
        printf("  Progress: seg %d/%d  %u/%u bytes (%d%%)\n", static_cast<int>(si + 1),
               static_cast<int>(segments.size()), done, total, percent);
      }
      fflush(stdout);
    }
    const uint8_t exit_request[1] = {0x37};
    length = sizeof response;
    status = t->send(t->context, exit_request, 1, 5000);
    if (status == 0) status = read_isotp_with_pending(t, 0x37, response, &length);
    if (status != 0 || length < 1 || response[0] != 0x77) {
      vxcli_print_error("TransferExit rejected");
      return 1;
    }
  }
  if (json) {
    printf("{\"status\":\"ok\",\"segments\":%d,\"blocks\":%u,\"bytes\":%u}\n",
           static_cast<int>(segments.size()), blocks, done);
  } else {
    printf("Download complete: %d segment(s), %u blocks, %u bytes\n", static_cast<int>(segments.size()),
           blocks, done);
  }
  return 0;
}

int vxcli_uds_present_send_command(int count, char** words) {
  int64_t interval = 2000, repeat = 1, timeout = 1000;
  if (vxcli_diag_int_option(count, words, "interval", 1, 3600000, &interval) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "count", 1, 100000, &repeat) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "timeout", 1, 600000, &timeout) != 0) return 1;
  const bool suppress = vxcli_has_flag(count, words, "suppress-positive-response");
  vxcli_uds_session session;
  TransportGuard guard;
  if (open_session_transport(count, words, "standalone-uds-present", &session, &guard) != 0) return 1;
  const vxcli_uds_transport* t = &guard.t;
  const uint8_t request[2] = {0x3E, static_cast<uint8_t>(suppress ? 0x80 : 0x00)};
  int answered = 0, failed = 0;
  for (int64_t i = 0; i < repeat; i++) {
    if (i > 0) usleep(static_cast<useconds_t>(interval * 1000));
    uint32_t status = t->send(t->context, request, 2, static_cast<int32_t>(timeout));
    bool ok = status == 0;
    if (ok && !suppress) {
      uint8_t response[64];
      uint32_t length = sizeof response;
      status = t->receive(t->context, response, &length, static_cast<int32_t>(timeout));
      ok = status == 0 && length >= 2 && response[0] == 0x7E;
    }
    if (ok) answered++;
    else failed++;
    if (g_config.format == VXCLI_FORMAT_JSONL) {
      printf("{\"status\":\"%s\",\"event\":\"tester_present\",\"index\":%d,\"request\":\"%s\"}\n",
             ok ? "ok" : "error", static_cast<int>(i + 1), vxcli_diag_hex_compact(request, 2).c_str());
      fflush(stdout);
    } else if (g_config.format == VXCLI_FORMAT_TEXT && !ok) {
      fprintf(stderr, "TesterPresent %d/%d: %s\n", static_cast<int>(i + 1), static_cast<int>(repeat),
              status ? transport_error(t) : "unexpected response");
    }
  }
  if (json_mode()) {
    printf("{\"status\":\"%s\",\"sent\":%d,\"confirmed\":%d,\"failed\":%d,\"suppress_positive_response\":%s}\n",
           failed ? "error" : "ok", static_cast<int>(repeat), answered, failed, suppress ? "true" : "false");
  } else if (failed) {
    vxcli_print_error("TesterPresent: %d of %d failed", failed, static_cast<int>(repeat));
  } else {
    printf("TesterPresent sent %d time(s) on %s (reqid=0x%X)%s\n", static_cast<int>(repeat),
           session.channel.c_str(), session.request_id, suppress ? ", responses suppressed" : "");
  }
  return failed ? 1 : 0;
}

int vxcli_uds_discover_command(int count, char** words) {
  int64_t first = 0x700, last = 0x7FF, offset = 8, timeout = 50;
  if (vxcli_diag_int_option(count, words, "start-id", 1, 0x1FFFFFFF, &first) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "end-id", 1, 0x1FFFFFFF, &last) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "response-offset", 0, 0x1FFFFFFF, &offset) != 0) return 1;
  if (vxcli_diag_int_option(count, words, "timeout", 1, 10000, &timeout) != 0) return 1;
  if (last < first || last - first > 4096) {
    vxcli_print_error("--start-id..--end-id must be ascending and span at most 4096 identifiers");
    return 1;
  }
  // TesterPresent is answered in every session; DiagnosticSessionControl
  // (default session) reaches servers that ignore TesterPresent outside one.
  const char* probe_name = vxcli_get_option(count, words, "probe");
  uint8_t probe[2] = {0x3E, 0x00};
  if (probe_name && strcmp(probe_name, "session") == 0) {
    probe[0] = 0x10;
    probe[1] = 0x01;
  } else if (probe_name && strcmp(probe_name, "tester-present") != 0) {
    vxcli_print_error("--probe must be tester-present or session (got '%s')", probe_name);
    return 1;
  }
  vxcli_uds_session session;
  if (vxcli_uds_session_from_options(count, words, &session) != 0) return 1;
  if (session.channel.empty()) {
    vxcli_print_error(
        "missing required parameter: --channel (e.g. --channel=10356/1, or run 'uds config set' first)");
    return 1;
  }
  session.request_id = static_cast<uint32_t>(first);
  session.response_id = static_cast<uint32_t>(first + offset);
  session.request_extended = first + offset > 0x7FF || last > 0x7FF;
  session.response_extended = last + offset > 0x7FF;
  char message[256];
  TransportGuard guard;
  if (vxcli_uds_open_transport(&session, "standalone-uds-discover", &guard.t, message, sizeof message) != 0) {
    vxcli_print_error("%s", message);
    return 1;
  }
  guard.open = true;
  const vxcli_uds_transport* t = &guard.t;
  if (!t->retarget) {
    vxcli_print_error("this transport cannot scan identifiers");
    return 1;
  }
  struct Found { uint32_t req, resp; std::vector<uint8_t> answer; };
  std::vector<Found> found;
  for (int64_t id = first; id <= last; id++) {
    uint32_t resp = static_cast<uint32_t>(id + offset);
    if (resp > 0x1FFFFFFF) break;
    if (t->retarget(t->context, static_cast<uint32_t>(id), resp) != 0) continue;
    if (t->send(t->context, probe, 2, static_cast<int32_t>(timeout)) != 0) continue;
    uint8_t response[VXCLI_UDS_BUFFER];
    uint32_t length = sizeof response;
    if (t->receive(t->context, response, &length, static_cast<int32_t>(timeout)) != 0 || length == 0)
      continue;
    // Any UDS answer to the probe, positive or negative, proves a responder.
    if (response[0] != (probe[0] | 0x40) && !(response[0] == 0x7F && length >= 2 && response[1] == probe[0]))
      continue;
    found.push_back({static_cast<uint32_t>(id), resp, std::vector<uint8_t>(response, response + length)});
    if (g_config.format == VXCLI_FORMAT_JSONL) {
      printf("{\"status\":\"ok\",\"event\":\"responder\",\"request_id\":\"0x%X\",\"response_id\":\"0x%X\","
             "\"response\":\"%s\"}\n",
             static_cast<uint32_t>(id), resp, vxcli_diag_hex_compact(response, length).c_str());
      fflush(stdout);
    }
  }
  if (g_config.format == VXCLI_FORMAT_JSON || g_config.format == VXCLI_FORMAT_JSONL) {
    if (g_config.format == VXCLI_FORMAT_JSON) {
      printf("{\"status\":\"ok\",\"scanned\":%lld,\"responders\":[", static_cast<long long>(last - first + 1));
      for (size_t i = 0; i < found.size(); i++)
        printf("%s{\"request_id\":\"0x%X\",\"response_id\":\"0x%X\",\"response\":\"%s\"}", i ? "," : "",
               found[i].req, found[i].resp,
               vxcli_diag_hex_compact(found[i].answer.data(), found[i].answer.size()).c_str());
      printf("]}\n");
    } else {
      printf("{\"status\":\"ok\",\"event\":\"summary\",\"scanned\":%lld,\"responders\":%zu}\n",
             static_cast<long long>(last - first + 1), found.size());
    }
    return 0;
  }
  if (g_config.format == VXCLI_FORMAT_CSV) {
    printf("request_id,response_id,response\n");
    for (const auto& f : found)
      printf("0x%X,0x%X,%s\n", f.req, f.resp, vxcli_diag_hex_compact(f.answer.data(), f.answer.size()).c_str());
    return 0;
  }
  printf("Scanned 0x%llX..0x%llX on %s: %zu responder(s)\n", static_cast<unsigned long long>(first),
         static_cast<unsigned long long>(last), session.channel.c_str(), found.size());
  for (const auto& f : found)
    printf("  reqid=0x%X respid=0x%X response: %s\n", f.req, f.resp,
           vxcli_uds_hex(f.answer.data(), f.answer.size()).c_str());
  return 0;
}
