// Device transport for the uds commands: the session's channel opened for the
// one command and a direct ISO-TP link on it, or a link on a channel the
// daemon keeps open.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "channel/channel.h"
#include "diag/commands.h"
#include "diag/isotp_link.h"
#include "diag/uds_client.h"

namespace {

struct DeviceTransport {
  VXHandle channel = nullptr;
  bool own_channel = true;
  vxcli_isotp_link link;
  vxcli_isotp_link_params params;
};

uint32_t t_send(void* c, const uint8_t* data, uint32_t length, int32_t timeout_ms) {
  return vxcli_isotp_link_send(&static_cast<DeviceTransport*>(c)->link, data, length, timeout_ms);
}
uint32_t t_receive(void* c, uint8_t* buffer, uint32_t* length, int32_t timeout_ms) {
  return vxcli_isotp_link_receive(&static_cast<DeviceTransport*>(c)->link, buffer, length, timeout_ms);
}
const char* t_error(void* c) { return vxcli_isotp_link_error(&static_cast<DeviceTransport*>(c)->link); }
uint64_t t_now_ms(void*) {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}
int t_retarget(void* c, uint32_t request_id, uint32_t response_id) {
  auto* t = static_cast<DeviceTransport*>(c);
  t->link.config.tx_id = request_id;
  t->link.config.tx_extended = request_id > 0x7FF;
  t->link.config.rx_id = response_id;
  t->link.config.rx_extended = response_id > 0x7FF;
  // Late answers to the previous probe must not count.
  if (t->own_channel) VX_ClearBuffer(t->channel);
  return 0;
}
void t_close(void* c) {
  auto* t = static_cast<DeviceTransport*>(c);
  vxcli_isotp_link_close(&t->link);
  if (t->channel && t->own_channel) VX_Close(t->channel);
  delete t;
}

int bind_link(DeviceTransport* t, const vxcli_uds_session* session, int broker_slot, const char* cursor) {
  memset(&t->params, 0, sizeof t->params);
  t->params.role = VXCLI_ISOTP_ROLE_TESTER;
  t->params.request_template =
      vxcli_isotp_template(session->request_id, session->request_extended, session->fd, session->brs);
  t->params.response_template =
      vxcli_isotp_template(session->response_id, session->response_extended, session->fd, session->brs);
  t->params.padding = session->padding;
  t->params.pad_byte = session->pad_byte;
  return vxcli_isotp_link_open(&t->link, t->channel, broker_slot, &t->params, cursor);
}

void fill(DeviceTransport* t, vxcli_uds_transport* out) {
  out->send = t_send;
  out->receive = t_receive;
  out->error = t_error;
  out->retarget = t_retarget;
  out->now_ms = t_now_ms;
  out->close = t_close;
  out->context = t;
}

}  // namespace

int vxcli_uds_open_device_transport(const vxcli_uds_session* session, const char* cursor_name,
                                    vxcli_uds_transport* out, char* error_text, size_t error_size) {
  auto* t = new (std::nothrow) DeviceTransport;
  if (!t) {
    snprintf(error_text, error_size, "out of memory");
    return -1;
  }
  t->channel = vxcli_open_can_channel_ex(session->channel.c_str(),
                                         session->bitrate.empty() ? nullptr : session->bitrate.c_str(),
                                         VX_CAN_MODE_NORMAL, 0, nullptr);
  if (!t->channel) {
    delete t;
    snprintf(error_text, error_size, "Failed to open channel %s", session->channel.c_str());
    return -1;
  }
  if (bind_link(t, session, -1, cursor_name) != 0) {
    VX_Close(t->channel);
    delete t;
    snprintf(error_text, error_size, "Failed to initialize software ISO-TP transport");
    return -1;
  }
  fill(t, out);
  return 0;
}

int vxcli_uds_open_link_transport(const vxcli_uds_session* session, VXHandle channel, int broker_slot,
                                  const char* cursor_name, vxcli_uds_transport* out, char* error_text,
                                  size_t error_size) {
  memset(out, 0, sizeof *out);
  auto* t = new (std::nothrow) DeviceTransport;
  if (!t) {
    snprintf(error_text, error_size, "out of memory");
    return -1;
  }
  t->channel = channel;
  t->own_channel = false;
  if (bind_link(t, session, broker_slot, cursor_name) != 0) {
    delete t;
    snprintf(error_text, error_size, "Failed to initialize software ISO-TP transport");
    return -1;
  }
  fill(t, out);
  // A broker cursor keeps its identifier filter, so it cannot be re-targeted.
  if (broker_slot >= 0) out->retarget = nullptr;
  return 0;
}
