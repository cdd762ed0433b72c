// "message recv" served from the receive broker on a receive thread.
#include "daemon/daemon_recv.h"

#include <poll.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>

#include "cli/output.h"
#include "message/frame.h"
#include "message/lin.h"
#include "message/message_dbc.h"
#include "message/recv.h"

std::atomic<int> g_daemon_async_readers{0};
std::atomic<bool> g_daemon_recv_stop{false};

namespace {

constexpr size_t kBatch = 256;
// While several channels are read, the thread waits on one of them at a time;
// this bounds how late a frame on another channel is noticed.
constexpr int kMultiChannelWaitMs = 20;

uint32_t request_format(const Words& w) {
  const char* f = w.option("format");
  if (daemon_is(f, "json")) return VXCLI_FORMAT_JSON;
  if (daemon_is(f, "jsonl")) return VXCLI_FORMAT_JSONL;
  if (daemon_is(f, "csv")) return VXCLI_FORMAT_CSV;
  return VXCLI_FORMAT_TEXT;
}

const char* fail(Out* out, const char* format, const char* a = "", const char* b = "") {
  out->length = 0;
  daemon_put(out, format, a, b);
  return out->data;
}

// Appends one printed frame to the answer; false when the answer is full.
bool append_line(vxcli_json_writer* answer, const vxcli_json_writer* line) {
  size_t n = vxcli_json_writer_length(line);
  if (vxcli_json_writer_length(answer) + n + 1 > answer->limit) return false;
  vxcli_json_writer_raw_n(answer, vxcli_json_writer_data(line), n);
  return vxcli_json_writer_ok(answer);
}

// The client closed its end (interrupted); nobody would read the answer.
bool client_gone(int fd) {
  pollfd p = {fd, POLLRDHUP, 0};
  return poll(&p, 1, 0) > 0 && (p.revents & (POLLRDHUP | POLLHUP | POLLERR));
}

}  // namespace

bool daemon_is_recv(const Words& w) { return daemon_is(w.word(0), "message") && daemon_is(w.word(1), "recv"); }

daemon_recv_job* daemon_recv_prepare(const Words& w, Out* out, const char** error) {
  for (const char* legacy : {"bus", "tres", "voltage"})
    if (w.option(legacy)) {
      *error = "ERROR: bus is inferred; the daemon captures with each channel's open configuration\n";
      return nullptr;
    }
  for (const char* standalone : {"bitrate", "mode", "pullup", "power", "lin-version", "checksum"})
    if (w.option(standalone)) {
      *error = fail(out,
                    "ERROR: --%s applies only to standalone message recv; the daemon captures with each "
                    "channel's open configuration\n",
                    standalone);
      return nullptr;
    }
  if (w.option("timeout")) {
    *error = "ERROR: message recv has no --timeout option; use --duration=<seconds>\n";
    return nullptr;
  }
  long count = 0;
  if (const char* text = w.option("count")) {
    char* end = nullptr;
    count = strtol(text, &end, 10);
    if (!*text || *end || count < 0) {
      *error = fail(out, "ERROR: Invalid --count: %s (expected a non-negative integer)\n", text);
      return nullptr;
    }
  }
  double seconds = 0;
  const char* duration = w.option("duration");
  if (duration) {
    char* end = nullptr;
    seconds = strtod(duration, &end);
    if (!*duration || *end || !std::isfinite(seconds) || seconds < 0 || seconds > 86400) {
      *error = fail(out, "ERROR: Invalid --duration: %s (expected seconds)\n", duration);
      return nullptr;
    }
  }
  // A receive in the daemon always ends: without a duration it stops after 10 s.
  if (seconds <= 0) {
    seconds = 10;
    duration = "10";
  }
  bool filter = false;
  uint32_t filter_id = 0, filter_mask = 0x7FF;
  if (const char* text = w.option("id")) {
    long id = vxcli_parse_message_id_quiet(text, nullptr);
    if (id < 0 || id > 0x1FFFFFFF) {
      *error = fail(out, "ERROR: Invalid --id: %s\n", text);
      return nullptr;
    }
    filter = true;
    filter_id = static_cast<uint32_t>(id);
  }
  if (const char* text = w.option("mask")) {
    long mask = vxcli_parse_message_id_quiet(text, nullptr);
    if (mask < 0 || mask > 0xFFFFFFFFL) {
      *error = fail(out, "ERROR: Invalid --mask: %s\n", text);
      return nullptr;
    }
    filter_mask = static_cast<uint32_t>(mask);
  }

  int slots[VXCLI_DAEMON_SLOTS];
  int n = 0;
  if (const char* list = w.option("channel")) {
    char copy[1024];
    snprintf(copy, sizeof copy, "%s", list);
    char* save = nullptr;
    for (char* piece = strtok_r(copy, ",", &save); piece; piece = strtok_r(nullptr, ",", &save)) {
      int slot = daemon_resolve_ch(piece);
      if (slot < 0) {
        *error = fail(out, "ERROR: channel %s is not open\n", piece);
        return nullptr;
      }
      bool seen = false;
      for (int k = 0; k < n; k++) seen = seen || slots[k] == slot;
      if (!seen && n < VXCLI_DAEMON_SLOTS) slots[n++] = slot;
    }
    if (n == 0) {
      *error = "ERROR: no matching open channels\n";
      return nullptr;
    }
  } else {
    for (int i = 0; i < VXCLI_DAEMON_SLOTS; i++)
      if (g_daemon_slots[i].open) slots[n++] = i;
    if (n == 0) {
      *error = "ERROR: no channels open; open channels first or specify --channel\n";
      return nullptr;
    }
  }

  const bool decode = w.flag("decode");
  const DbcLoadedFile* database = nullptr;
  if (decode) {
    bool any_can = false;
    for (int k = 0; k < n; k++) any_can = any_can || !g_daemon_slots[slots[k]].lin;
    if (!any_can) {
      *error = "ERROR: --decode is available only on CAN channels\n";
      return nullptr;
    }
    const char* selector = w.option("database") ? w.option("database") : w.option("dbc");
    char reason[320];
    database = vxcli_message_dbc_open(selector, reason, sizeof reason);
    if (!database) {
      *error = fail(out, "ERROR: --decode needs a DBC database: %s\n", *reason ? reason : "none resolved");
      return nullptr;
    }
  }

  daemon_recv_job* job = new (std::nothrow) daemon_recv_job();
  if (!job) {
    *error = "ERROR: out of memory for receive response\n";
    return nullptr;
  }
  job->format = request_format(w);
  job->json = w.json;
  job->count = count;
  job->duration_ms = static_cast<uint64_t>(std::llround(seconds * 1000.0));
  snprintf(job->duration_text, sizeof job->duration_text, "%s", duration);
  job->filter = filter;
  job->filter_id = filter_id;
  job->filter_mask = filter_mask;
  job->decode = decode;
  job->database = database;
  job->peer_fd = -1;
  // Cursors open here, before the client is handed to its thread, so that frames
  // arriving from now on are all seen.
  for (int k = 0; k < n; k++) {
    if (vxcli_rx_broker_cursor_open_named(slots[k], 0, "recv", nullptr, &job->cursors[job->channels]) != 0) {
      printf("Daemon: recv cursor for slot %d unavailable\n", slots[k]);
      continue;
    }
    job->slots[job->channels++] = slots[k];
  }
  if (job->channels == 0) {
    daemon_recv_free(job);
    *error = "ERROR: no matching open channels\n";
    return nullptr;
  }
  return job;
}

void daemon_recv_free(daemon_recv_job* job) {
  if (!job) return;
  for (int k = 0; k < job->channels; k++) vxcli_rx_broker_cursor_close(&job->cursors[k]);
  job->channels = 0;
  delete job;
}

void daemon_recv_run(daemon_recv_job* job, vxcli_json_writer* answer) {
  static_assert(VXCLI_DAEMON_SLOTS <= 32, "live mask is 32 bits");
  vxcli_recv_printer* p = new (std::nothrow) vxcli_recv_printer;
  vxcli_rx_record* records = new (std::nothrow) vxcli_rx_record[kBatch];
  if (!p || !records || vxcli_recv_printer_init(p, job->format, answer->limit) != 0) {
    delete[] records;
    delete p;
    vxcli_json_writer_raw(answer, "ERROR: out of memory for receive response\n");
    return;
  }
  p->count = job->count;
  p->filter = job->filter;
  p->filter_id = job->filter_id;
  p->filter_mask = job->filter_mask;
  p->decode = job->decode;
  p->database = job->database;
  p->channel_prefix = job->channels > 1;

  const bool json = job->format == VXCLI_FORMAT_JSON;
  uint32_t live = job->channels >= 32 ? 0xFFFFFFFFu : ((1u << job->channels) - 1);
  bool full = false, stop = false;
  const uint64_t deadline = daemon_now_ms() + job->duration_ms;
  auto take = [&](int k, const vxcli_rx_record* r, size_t count) {
    for (size_t i = 0; i < count && !stop; i++) {
      int rc = vxcli_recv_printer_add(p, job->slots[k], &r[i].message);
      if (rc < 0) stop = true;
      else if (rc > 0 && !json && !append_line(answer, &p->line)) full = stop = true;
      if (vxcli_recv_printer_count_reached(p)) stop = true;
    }
  };
  auto settle = [&](int k, int rc) {
    if (rc == VXCLI_RX_READ_OVERRUN) p->errors++;
    else if (rc == VXCLI_RX_READ_DETACHED || rc == VXCLI_RX_READ_ERROR) live &= ~(1u << k);
  };
  uint64_t next_peer_check = 0;
  while (!stop && live && !g_daemon_recv_stop.load(std::memory_order_relaxed)) {
    uint64_t now = daemon_now_ms();
    if (now >= deadline) break;
    if (job->peer_fd >= 0 && now >= next_peer_check) {
      next_peer_check = now + 100;
      if (client_gone(job->peer_fd)) {
        printf("Daemon: recv client went away; capture ended\n");
        break;
      }
    }
    bool any = false;
    for (int k = 0; k < job->channels && !stop; k++) {
      if (!(live & (1u << k))) continue;
      size_t got = 0;
      int rc = vxcli_rx_broker_read_batch(&job->cursors[k], records, kBatch, &got, 0);
      if (rc == VXCLI_RX_READ_RECORD) {
        any = true;
        take(k, records, got);
      } else {
        settle(k, rc);
      }
    }
    if (any || stop || !live) continue;
    // Nothing pending: wait for the next record on the first live channel.
    int k = __builtin_ctz(live);
    uint64_t remaining = deadline - daemon_now_ms();
    int wait = job->channels > 1 ? kMultiChannelWaitMs : 100;
    if (remaining < static_cast<uint64_t>(wait)) wait = static_cast<int>(remaining);
    if (wait <= 0) continue;
    int rc = vxcli_rx_broker_read(&job->cursors[k], records, wait);
    if (rc == VXCLI_RX_READ_RECORD) take(k, records, 1);
    else settle(k, rc);
  }
  for (int k = 0; k < job->channels; k++) {
    vxcli_rx_consumer_stats stats;
    if (vxcli_rx_broker_consumer_stats(&job->cursors[k], &stats) == 0 && stats.lost > 0)
      printf("Daemon: recv on slot %d lost %llu record(s) to overruns\n", job->slots[k],
             static_cast<unsigned long long>(stats.lost));
    vxcli_rx_broker_cursor_close(&job->cursors[k]);
  }
  const int channels = job->channels;
  job->channels = 0;
  if (full)
    printf("Daemon: recv answer reached its %zu-byte limit after %ld frame(s); capture ended\n", answer->limit,
           p->received);

  if (json) {
    if (p->overflow || vxcli_recv_printer_finish_json(p, channels) != 0) {
      answer->length = 0;
      answer->failed = 0;
      vxcli_json_writer_raw(answer, "ERROR: receive response exceeded the bounded JSON limit\n");
    } else {
      answer->length = 0;
      vxcli_json_writer_raw_n(answer, vxcli_json_writer_data(&p->document), vxcli_json_writer_length(&p->document));
    }
  } else if (p->received == 0) {
    answer->length = 0;
    char text[160];
    if (job->count > 0)
      snprintf(text, sizeof text, "ERROR: No messages received (count=%ld not reached in %ss)\n", job->count,
               job->duration_text);
    else
      snprintf(text, sizeof text, "ERROR: No messages received in %ss\n", job->duration_text);
    vxcli_json_writer_raw(answer, text);
  }
  vxcli_recv_printer_free(p);
  delete p;
  delete[] records;
}
