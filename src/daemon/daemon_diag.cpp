// The daemon's diagnostic services: the stored UDS session, uds request and
// unlock, the isotp transfers on open slots (read through the receive broker), and
// the TesterPresent task.
//
// A command whose channel is not one of the daemon's open slots is left to
// the client (null answer), which then runs it on a channel of its own.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/output.h"
#include "daemon/daemon_state.h"
#include "diag/commands.h"
#include "diag/diag_util.h"
#include "diag/isotp_link.h"
#include "diag/seedkey.h"
#include "diag/uds_client.h"

namespace {

struct UdsConfig {
  bool configured = false;
  int slot = -1;
  vxcli_uds_session session{};
};
UdsConfig g_uds_config;

uint32_t answer_format(const Words& w) {
  const char* f = w.option("format");
  if (f && !strcmp(f, "csv")) return VXCLI_FORMAT_CSV;
  if (f && !strcmp(f, "jsonl")) return VXCLI_FORMAT_JSONL;
  return w.json ? VXCLI_FORMAT_JSON : VXCLI_FORMAT_TEXT;
}

// The words after the command path (options included).
int rest_count(const Words& w, int used) { return w.argc > used ? w.argc - used : 0; }
char** rest(const Words& w, int used) { return w.argv + (w.argc > used ? used : w.argc); }

const char* error_answer(Out* out, const std::string& message) {
  daemon_put(out, "ERROR: %s\n", message.c_str());
  return out->data;
}

std::string slot_channel_text(int slot) {
  char serial[64];
  daemon_slot_identity(g_daemon_slots[slot], serial, sizeof serial);
  return serial;
}

// Session of a uds command: the stored one with the command's overrides. The
// slot is the one of --channel, else the stored one.
enum SessionResult { kSessionOk, kSessionError, kSessionNotHere };
SessionResult resolve_session(const Words& w, int used, vxcli_uds_session* session, int* slot,
                              std::string* error) {
  *session = g_uds_config.configured ? g_uds_config.session : vxcli_uds_session{};
  if (!g_uds_config.configured) session->pad_byte = 0xCC;
  const char* channel = w.option("channel");
  *slot = channel ? daemon_resolve_ch(channel) : (g_uds_config.configured ? g_uds_config.slot : -1);
  if (*slot < 0 || !g_daemon_slots[*slot].open || g_daemon_slots[*slot].lin) return kSessionNotHere;
  if (vxcli_uds_session_apply_options(rest_count(w, used), rest(w, used), session, error) != 0)
    return kSessionError;
  if (const char* missing = vxcli_uds_session_missing(session)) {
    *error = missing;
    return kSessionError;
  }
  return kSessionOk;
}

void put_session_json(Out* out, const vxcli_uds_session& s) {
  daemon_put(out, "\"channel\":");
  daemon_put_json_string(out, s.channel.c_str());
  daemon_put(out,
             ",\"request_id\":\"0x%X\",\"response_id\":\"0x%X\",\"fd\":%s,\"brs\":%s,\"padding\":%s,"
             "\"pad_byte\":\"0x%02X\"",
             s.request_id, s.response_id, s.fd ? "true" : "false", s.brs ? "true" : "false",
             s.padding ? "true" : "false", s.pad_byte);
}

std::string session_text(const vxcli_uds_session& s) {
  char text[256];
  snprintf(text, sizeof text, "reqid=0x%X respid=0x%X %s padding=%s", s.request_id, s.response_id,
           s.fd ? (s.brs ? "fdf+brs" : "fdf") : "classic", s.padding ? "" : "off");
  std::string t = text;
  if (s.padding) {
    char pad[8];
    snprintf(pad, sizeof pad, "0x%02X", s.pad_byte);
    t += pad;
  }
  return t;
}

const char* answer_config_get(const Words& w, Out* out) {
  const UdsConfig& c = g_uds_config;
  const bool open = c.configured && c.slot >= 0 && g_daemon_slots[c.slot].open;
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"configured\":%s", c.configured ? "true" : "false");
    if (c.configured) {
      daemon_put(out, ",\"slot\":%d,\"channel_open\":%s,", c.slot, open ? "true" : "false");
      put_session_json(out, c.session);
    }
    daemon_put(out, "}\n");
    return out->data;
  }
  if (!c.configured) {
    daemon_put(out, "OK: uds session not configured (use uds config set)\n");
    return out->data;
  }
  daemon_put(out, "OK: uds session ch=%s (slot %d%s) %s\n", c.session.channel.c_str(), c.slot,
             open ? "" : ", channel closed", session_text(c.session).c_str());
  return out->data;
}

const char* answer_config_set(const Words& w, Out* out) {
  const char* channel = w.option("channel");
  if (!channel && !g_uds_config.configured) return "ERROR: --channel is required\n";
  int slot = channel ? daemon_resolve_ch(channel) : g_uds_config.slot;
  if (slot < 0 || !g_daemon_slots[slot].open) {
    daemon_put(out, "ERROR: channel %s is not open in the daemon (open it with channel open first)\n",
               channel ? channel : g_uds_config.session.channel.c_str());
    return out->data;
  }
  if (g_daemon_slots[slot].lin) return "ERROR: uds needs a CAN channel\n";
  vxcli_uds_session session = g_uds_config.configured ? g_uds_config.session : vxcli_uds_session{};
  if (!g_uds_config.configured) session.pad_byte = 0xCC;
  std::string error;
  if (vxcli_uds_session_apply_options(rest_count(w, 3), rest(w, 3), &session, &error) != 0)
    return error_answer(out, error);
  if (const char* missing = vxcli_uds_session_missing(&session)) return error_answer(out, missing);
  g_uds_config.configured = true;
  g_uds_config.slot = slot;
  g_uds_config.session = session;
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"configured\":true,\"slot\":%d,\"channel_open\":true,", slot);
    put_session_json(out, session);
    daemon_put(out, "}\n");
  } else {
    daemon_put(out, "OK: uds session set: ch=%s (slot %d, %s) %s\n", session.channel.c_str(), slot,
               slot_channel_text(slot).c_str(), session_text(session).c_str());
  }
  return out->data;
}

const char* answer_request(const Words& w, Out* out) {
  vxcli_uds_session session;
  int slot = -1;
  std::string error;
  SessionResult r = resolve_session(w, 2, &session, &slot, &error);
  if (r == kSessionNotHere) return nullptr;
  vxcli_uds_request_plan plan;
  if (vxcli_uds_request_plan_from_words(rest_count(w, 2), rest(w, 2), &plan, &error) != 0)
    return error_answer(out, error);
  const uint32_t format = answer_format(w);
  if (plan.dry_run) {
    std::string body = vxcli_uds_request_render(plan, nullptr, format);
    daemon_put(out, "%s%s", format == VXCLI_FORMAT_TEXT ? "OK: " : "", body.c_str());
    return out->data;
  }
  if (r == kSessionError) return error_answer(out, error);
  vxcli_uds_transport t;
  char message[256];
  if (vxcli_uds_open_link_transport(&session, g_daemon_slots[slot].handle, slot, "daemon-uds-request", &t,
                                    message, sizeof message) != 0)
    return error_answer(out, message);
  vxcli_uds_request_outcome outcome;
  vxcli_uds_request_exchange(&t, plan, &outcome);
  t.close(t.context);
  std::string body = vxcli_uds_request_render(plan, &outcome, format);
  if (format == VXCLI_FORMAT_JSON || format == VXCLI_FORMAT_JSONL) {
    if (outcome.send_failed) return error_answer(out, vxcli_uds_request_error(plan, outcome));
    daemon_put(out, "%s", body.c_str());
    return out->data;
  }
  if (outcome.rc != 0)
    daemon_put(out, "ERROR: %s\n", vxcli_uds_request_error(plan, outcome).c_str());
  else if (format == VXCLI_FORMAT_TEXT)
    daemon_put(out, "OK: %s on slot %d\n", outcome.state, slot);
  daemon_put(out, "%s", body.c_str());
  return out->data;
}

const char* answer_unlock(const Words& w, Out* out) {
  vxcli_uds_session session;
  int slot = -1;
  std::string error;
  SessionResult r = resolve_session(w, 2, &session, &slot, &error);
  if (r == kSessionNotHere) return nullptr;
  uint32_t level = 0;
  std::string algo;
  if (vxcli_uds_unlock_plan_from_words(rest_count(w, 2), rest(w, 2), &level, &algo, &error) != 0)
    return error_answer(out, error);
  if (r == kSessionError) return error_answer(out, error);
  char message[512];
  vxcli_seedkey library;
  if (vxcli_seedkey_load(algo.c_str(), &library, message, sizeof message) != 0) return error_answer(out, message);
  vxcli_uds_transport t;
  if (vxcli_uds_open_link_transport(&session, g_daemon_slots[slot].handle, slot, "daemon-uds-security-access", &t,
                                    message, sizeof message) != 0) {
    vxcli_seedkey_close(&library);
    return error_answer(out, message);
  }
  const uint32_t format = answer_format(w);
  std::string body;
  int rc = vxcli_uds_unlock_run(&t, &library, level, algo, format, &body, &error);
  t.close(t.context);
  vxcli_seedkey_close(&library);
  if (rc != 0) return error_answer(out, error);
  daemon_put(out, "%s%s", format == VXCLI_FORMAT_TEXT ? "OK: " : "", body.c_str());
  return out->data;
}

// --- isotp send / recv on a slot ---

const char* answer_isotp(const Words& w, Out* out, bool send) {
  vxcli_isotp_endpoint e;
  std::string error;
  const char* channel = w.option("channel");
  int slot = channel ? daemon_resolve_ch(channel) : -1;
  if (slot < 0 || !g_daemon_slots[slot].open || g_daemon_slots[slot].lin) return nullptr;
  if (vxcli_isotp_endpoint_from_words(rest_count(w, 2), rest(w, 2), &e, &error) != 0)
    return error_answer(out, error);
  std::vector<uint8_t> data;
  if (send && vxcli_isotp_parse_payload(w.option("data"), &data, &error) != 0) return error_answer(out, error);
  int64_t count = 1;
  if (!send && vxcli_diag_int_option_text(rest_count(w, 2), rest(w, 2), "count", 1, 1000, &count, &error) != 0)
    return error_answer(out, error);
  static vxcli_isotp_link link;  // large and address-stable while open
  if (vxcli_isotp_endpoint_link_open(e, VXCLI_ISOTP_ROLE_TESTER, &link, g_daemon_slots[slot].handle, slot,
                                     send ? "daemon-isotp-send" : "daemon-isotp-recv") != 0)
    return "ERROR: Failed to initialize software ISO-TP transport\n";
  const uint32_t format = answer_format(w);
  std::string body;
  const char* answer = nullptr;
  if (send) {
    uint32_t status = vxcli_isotp_link_send(&link, data.data(), static_cast<uint32_t>(data.size()),
                                            static_cast<int32_t>(e.timeout));
    if (status != 0) {
      daemon_put(out, "ERROR: ISO-TP send failed: %s (%s)\n", vxcli_isotp_link_error(&link),
                 vxcli_status_to_string(status));
      answer = out->data;
    } else {
      body = vxcli_isotp_render_transfer("tx", e.channel, e.reqid, e.fd, data.data(),
                                         static_cast<uint32_t>(data.size()), link.stats, format);
    }
  } else {
    std::vector<uint8_t> buffer(VXCLI_ISOTP_MAX_PAYLOAD);
    for (int64_t i = 0; i < count && !answer; i++) {
      uint32_t length = static_cast<uint32_t>(buffer.size());
      uint32_t status = vxcli_isotp_link_receive(&link, buffer.data(), &length, static_cast<int32_t>(e.timeout));
      if (status != 0) {
        if (link.last_status == VXCLI_ISOTP_TIMEOUT)
          daemon_put(out, "ERROR: no ISO-TP message from 0x%X within %lld ms\n", e.respid,
                     static_cast<long long>(e.timeout));
        else
          daemon_put(out, "ERROR: ISO-TP receive failed: %s (%s)\n", vxcli_isotp_link_error(&link),
                     vxcli_status_to_string(status));
        answer = out->data;
      } else {
        body += vxcli_isotp_render_transfer("rx", e.channel, e.respid, e.fd, buffer.data(), length, link.stats,
                                            format);
      }
    }
  }
  vxcli_isotp_link_close(&link);
  if (answer) return answer;
  daemon_put(out, "%s%s", format == VXCLI_FORMAT_TEXT ? "OK: " : "", body.c_str());
  return out->data;
}

// --- TesterPresent ---

struct PresentTask {
  std::atomic<bool> running{false};
  std::atomic<bool> stop{false};
  int slot = -1;
  vxcli_uds_session session{};
  int interval_ms = 2000;
  int timeout_ms = 1000;
  bool suppress = false;
  uint64_t started_ms = 0;
  std::atomic<uint32_t> sent{0}, confirmed{0}, failed{0};
  std::mutex error_lock;  // guards last_error only
  std::string last_error;
  vxcli_isotp_link link;  // the task's own; cancelled by stop
};
PresentTask g_present;

int open_session_link(const vxcli_uds_session& s, int slot, vxcli_isotp_link* link, const char* cursor) {
  vxcli_isotp_link_params p;
  memset(&p, 0, sizeof p);
  p.role = VXCLI_ISOTP_ROLE_TESTER;
  p.request_template = vxcli_isotp_template(s.request_id, s.request_extended, s.fd, s.brs);
  p.response_template = vxcli_isotp_template(s.response_id, s.response_extended, s.fd, s.brs);
  p.padding = s.padding;
  p.pad_byte = s.pad_byte;
  return vxcli_isotp_link_open(link, g_daemon_slots[slot].handle, slot, &p, cursor);
}

void present_note(PresentTask& t, bool ok, const char* why) {
  if (ok) {
    t.confirmed++;
    return;
  }
  t.failed++;
  std::lock_guard<std::mutex> guard(t.error_lock);
  t.last_error = why;
}

// Sends once under the command lock (taken by the caller) and leaves the
// link open for the answer; false with the reason in *why.
bool present_send(PresentTask& t, const char** why) {
  if (open_session_link(t.session, t.slot, &t.link, "daemon-uds-present") != 0) {
    *why = "Failed to initialize software ISO-TP transport";
    return false;
  }
  const uint8_t request[2] = {0x3E, static_cast<uint8_t>(t.suppress ? 0x80 : 0x00)};
  if (vxcli_isotp_link_send(&t.link, request, 2, t.timeout_ms) != 0) {
    *why = vxcli_isotp_link_error(&t.link);
    vxcli_isotp_link_close(&t.link);
    return false;
  }
  t.sent++;
  return true;
}

// Waits for 7E (unless suppressed) and closes the link; runs without the command lock.
bool present_confirm(PresentTask& t, const char** why) {
  bool ok = true;
  if (!t.suppress) {
    uint8_t response[64];
    uint32_t length = sizeof response;
    uint32_t status = vxcli_isotp_link_receive(&t.link, response, &length, t.timeout_ms);
    if (status != 0) {
      *why = vxcli_isotp_link_error(&t.link);
      ok = false;
    } else if (length < 2 || response[0] != 0x7E) {
      *why = "unexpected response";
      ok = false;
    }
  }
  vxcli_isotp_link_close(&t.link);
  return ok;
}

void present_main() {
  PresentTask& t = g_present;
  while (!t.stop.load()) {
    bool locked = false;
    while (!t.stop.load() && !(locked = vxcli_daemon_command_try_lock() != 0)) usleep(2000);
    if (!locked) break;
    const bool alive = daemon_is_running() && g_daemon_slots[t.slot].open;
    const char* why = nullptr;
    bool sent = alive && !t.stop.load() && present_send(t, &why);
    vxcli_daemon_command_unlock();
    if (!alive) {
      present_note(t, false, "channel closed");
      break;
    }
    if (t.stop.load()) {
      if (sent) vxcli_isotp_link_close(&t.link);
      break;
    }
    bool ok = sent && present_confirm(t, &why);
    present_note(t, ok, why ? why : "");
    for (int waited = 0; waited < t.interval_ms && !t.stop.load(); waited += 10)
      usleep(static_cast<useconds_t>((t.interval_ms - waited < 10 ? t.interval_ms - waited : 10) * 1000));
  }
  t.running.store(false);
}

// Stops the task and waits for its thread; called under the command lock,
// which the thread only try-locks.
void present_stop() {
  if (!g_present.running.load()) return;
  g_present.stop.store(true);
  vxcli_isotp_link_cancel(&g_present.link);
  for (int waited = 0; g_present.running.load() && waited < 5000; waited += 5) usleep(5000);
}

int present_options(const Words& w, int used, int64_t* interval, int64_t* count, int64_t* timeout,
                    std::string* error) {
  if (vxcli_diag_int_option_text(rest_count(w, used), rest(w, used), "interval", 1, 3600000, interval, error))
    return 1;
  if (count && vxcli_diag_int_option_text(rest_count(w, used), rest(w, used), "count", 1, 1000, count, error))
    return 1;
  return vxcli_diag_int_option_text(rest_count(w, used), rest(w, used), "timeout", 1, 60000, timeout, error);
}

const char* answer_present_send(const Words& w, Out* out) {
  vxcli_uds_session session;
  int slot = -1;
  std::string error;
  SessionResult r = resolve_session(w, 3, &session, &slot, &error);
  if (r == kSessionNotHere) return nullptr;
  if (r == kSessionError) return error_answer(out, error);
  int64_t interval = 2000, count = 1, timeout = 1000;
  if (present_options(w, 3, &interval, &count, &timeout, &error) != 0) return error_answer(out, error);
  // One-shot sends use a task record of their own, not the running task's.
  static PresentTask once;
  once.slot = slot;
  once.session = session;
  once.timeout_ms = static_cast<int>(timeout);
  once.suppress = w.flag("suppress-positive-response");
  once.sent = 0;
  once.confirmed = 0;
  once.failed = 0;
  once.last_error.clear();
  for (int64_t i = 0; i < count; i++) {
    if (i > 0) usleep(static_cast<useconds_t>(interval * 1000));
    const char* why = nullptr;
    bool ok = present_send(once, &why) && present_confirm(once, &why);
    present_note(once, ok, why ? why : "");
  }
  const uint32_t failed = once.failed.load();
  if (w.json) {
    daemon_put(out, "{\"status\":\"%s\",\"sent\":%lld,\"confirmed\":%u,\"failed\":%u,\"suppress_positive_response\":%s",
               failed ? "error" : "ok", static_cast<long long>(count), once.confirmed.load(), failed,
               once.suppress ? "true" : "false");
    if (failed) {
      daemon_put(out, ",\"message\":");
      daemon_put_json_string(out, once.last_error.c_str());
    }
    daemon_put(out, "}\n");
  } else if (failed) {
    daemon_put(out, "ERROR: TesterPresent: %u of %lld failed (%s)\n", failed, static_cast<long long>(count),
               once.last_error.c_str());
  } else {
    daemon_put(out, "OK: TesterPresent sent %lld time(s) on slot %d (reqid=0x%X)%s\n", static_cast<long long>(count),
               slot, session.request_id, once.suppress ? ", responses suppressed" : "");
  }
  return out->data;
}

const char* answer_present_start(const Words& w, Out* out) {
  if (g_present.running.load()) {
    daemon_put(out, "ERROR: tester present already running on slot %d (stop it first)\n", g_present.slot);
    return out->data;
  }
  vxcli_uds_session session;
  int slot = -1;
  std::string error;
  SessionResult r = resolve_session(w, 3, &session, &slot, &error);
  if (r == kSessionNotHere) {
    const char* channel = w.option("channel");
    if (channel) {
      daemon_put(out, "ERROR: channel %s is not open in the daemon\n", channel);
      return out->data;
    }
    return "ERROR: missing required parameter: --channel (e.g. --channel=10356/1, or run 'uds config set' first)\n";
  }
  if (r == kSessionError) return error_answer(out, error);
  int64_t interval = 2000, timeout = 1000;
  if (present_options(w, 3, &interval, nullptr, &timeout, &error) != 0) return error_answer(out, error);
  PresentTask& t = g_present;
  t.stop.store(false);
  t.slot = slot;
  t.session = session;
  t.interval_ms = static_cast<int>(interval);
  // The answer must come before the next request is due.
  t.timeout_ms = static_cast<int>(timeout < interval ? timeout : interval);
  t.suppress = w.flag("suppress-positive-response");
  t.sent = 0;
  t.confirmed = 0;
  t.failed = 0;
  t.last_error.clear();
  t.started_ms = daemon_now_ms();
  t.running.store(true);
  try {
    // Detached: a daemon that stops with the task running must not wait for it.
    std::thread(present_main).detach();
  } catch (...) {
    t.running.store(false);
    return "ERROR: cannot start the tester present thread\n";
  }
  printf("Daemon: tester present started on slot %d (reqid=0x%X, every %d ms)\n", slot, session.request_id,
         t.interval_ms);
  if (w.json)
    daemon_put(out,
               "{\"status\":\"ok\",\"state\":\"running\",\"slot\":%d,\"request_id\":\"0x%X\",\"interval_ms\":%d,"
               "\"suppress_positive_response\":%s}\n",
               slot, session.request_id, t.interval_ms, t.suppress ? "true" : "false");
  else
    daemon_put(out, "OK: tester present started on slot %d (reqid=0x%X, every %d ms%s)\n", slot,
               session.request_id, t.interval_ms, t.suppress ? ", responses suppressed" : "");
  return out->data;
}

const char* answer_present_stop(const Words& w, Out* out) {
  const bool was = g_present.running.load();
  present_stop();
  if (g_present.running.load()) return "ERROR: tester present task did not stop\n";
  if (w.json)
    daemon_put(out, "{\"status\":\"ok\",\"state\":\"stopped\",\"was_running\":%s,\"sent\":%u}\n",
               was ? "true" : "false", g_present.sent.load());
  else if (was)
    daemon_put(out, "OK: tester present stopped after %u request(s)\n", g_present.sent.load());
  else
    daemon_put(out, "OK: tester present was not running\n");
  return out->data;
}

const char* answer_present_status(const Words& w, Out* out) {
  PresentTask& t = g_present;
  const bool running = t.running.load();
  std::string last;
  {
    std::lock_guard<std::mutex> guard(t.error_lock);
    last = t.last_error;
  }
  if (w.json) {
    daemon_put(out, "{\"status\":\"ok\",\"running\":%s", running ? "true" : "false");
    if (t.slot >= 0)
      daemon_put(out,
                 ",\"slot\":%d,\"request_id\":\"0x%X\",\"interval_ms\":%d,\"suppress_positive_response\":%s,"
                 "\"sent\":%u,\"confirmed\":%u,\"failed\":%u,\"last_error\":",
                 t.slot, t.session.request_id, t.interval_ms, t.suppress ? "true" : "false", t.sent.load(),
                 t.confirmed.load(), t.failed.load());
    if (t.slot >= 0) daemon_put_json_string(out, last.c_str());
    daemon_put(out, "}\n");
    return out->data;
  }
  if (t.slot < 0) {
    daemon_put(out, "OK: tester present not running\n");
    return out->data;
  }
  daemon_put(out, "OK: tester present %s on slot %d (reqid=0x%X, every %d ms): sent=%u confirmed=%u failed=%u%s%s\n",
             running ? "running" : "stopped", t.slot, t.session.request_id, t.interval_ms, t.sent.load(),
             t.confirmed.load(), t.failed.load(), last.empty() ? "" : ", last error: ", last.c_str());
  return out->data;
}

}  // namespace

const char* daemon_answer_diag(const Words& w, Out* out) {
  static const bool registered = (vxcli_isotp_use_rx_broker(), true);
  (void)registered;
  const char* a = w.word(0);
  const char* b = w.word(1);
  const char* c = w.word(2);
  if (daemon_is(a, "isotp")) {
    if (daemon_is(b, "send")) return answer_isotp(w, out, true);
    if (daemon_is(b, "recv")) return answer_isotp(w, out, false);
    return nullptr;
  }
  if (!daemon_is(a, "uds")) return nullptr;
  if (daemon_is(b, "config")) {
    if (daemon_is(c, "get")) return answer_config_get(w, out);
    if (daemon_is(c, "set")) return answer_config_set(w, out);
    return "ERROR: uds config requires get|set\n";
  }
  if (daemon_is(b, "request")) return answer_request(w, out);
  if (daemon_is(b, "unlock")) return answer_unlock(w, out);
  if (daemon_is(b, "present")) {
    if (daemon_is(c, "send")) return answer_present_send(w, out);
    if (daemon_is(c, "start")) return answer_present_start(w, out);
    if (daemon_is(c, "stop")) return answer_present_stop(w, out);
    if (daemon_is(c, "status")) return answer_present_status(w, out);
    return "ERROR: uds present requires send|start|stop|status\n";
  }
  return nullptr;
}
