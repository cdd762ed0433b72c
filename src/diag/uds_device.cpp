// Device transport for the uds commands: the session's channel opened for the
// one command and a direct ISO-TP link on it.
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>

#include "channel/channel.h"
#include "diag/isotp_link.h"
#include "diag/uds_client.h"

namespace {

struct DeviceTransport {
  VXHandle channel = nullptr;
  vxcli_isotp_link link;
  vxcli_isotp_link_params params;
  char error[160];
};

VXMessage make_template(uint32_t id, bool extended, bool fd, bool brs) {
  VXMessage m;
  memset(&m, 0, sizeof m);
  m.header = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN & 0xFFFF);
  m.length = static_cast<uint16_t>(VX_MSG_HEADER_WORD_CAN >> 16);
  m.id = vxcli_isotp_wire_id(id, extended);
  m.control = static_cast<uint8_t>((fd ? 15 : 8) | (extended ? VX_CTRL_IDE : 0) |
                                   (fd ? VX_CTRL_EDL : 0) | (fd && brs ? VX_CTRL_BRS : 0));
  return m;
}

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
  VX_ClearBuffer(t->channel);  // late answers to the previous probe must not count
  return 0;
}
void t_close(void* c) {
  auto* t = static_cast<DeviceTransport*>(c);
  vxcli_isotp_link_close(&t->link);
  if (t->channel) VX_Close(t->channel);
  delete t;
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
  memset(&t->params, 0, sizeof t->params);
  t->params.role = VXCLI_ISOTP_ROLE_TESTER;
  t->params.request_template = make_template(session->request_id, session->request_extended, session->fd, session->brs);
  t->params.response_template = make_template(session->response_id, session->response_extended, session->fd, session->brs);
  t->params.padding = session->padding;
  t->params.pad_byte = session->pad_byte;
  if (vxcli_isotp_link_open(&t->link, t->channel, -1, &t->params, cursor_name) != 0) {
    VX_Close(t->channel);
    delete t;
    snprintf(error_text, error_size, "Failed to initialize software ISO-TP transport");
    return -1;
  }
  out->send = t_send;
  out->receive = t_receive;
  out->error = t_error;
  out->retarget = t_retarget;
  out->now_ms = t_now_ms;
  out->close = t_close;
  out->context = t;
  return 0;
}
