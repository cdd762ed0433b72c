#include "logging/log_device.h"

#include <cstring>

#include "message/frame.h"

int vxcli_log_frame_from_message(const VXMessage* m, int channel_number, vxcli_log_frame* out) {
  if (!m || !out) return 0;
  memset(out, 0, sizeof *out);
  out->channel = channel_number;
  out->tx = (m->header & VX_MSG_TX) != 0;
  if (vxcli_message_is_lin(m)) {
    out->is_lin = 1;
    out->id = m->id & 0x3F;
    out->dlc = out->length = m->control & VX_LIN_CTRL_LEN_MASK;
    if (out->length > 8) out->dlc = out->length = 8;
    memcpy(out->data, m->data, (size_t)out->length);
    out->lin_checksum = m->lin_checksum;
    out->lin_enhanced = (m->control & VX_LIN_CTRL_ENHANCED) != 0;
    return 1;
  }
  if (!vxcli_message_is_can(m)) return 0;
  out->extended = (m->control & VX_CTRL_IDE) != 0;
  out->id = vxcli_can_id_from_device(m->id, out->extended);
  out->remote = (m->control & VX_CTRL_RTR) != 0;
  out->fd = (m->control & VX_CTRL_EDL) != 0;
  out->brs = (m->control & VX_CTRL_BRS) != 0;
  out->esi = (m->flags & VX_MSGF_ESI) != 0;
  out->dlc = m->control & VX_CTRL_DLC_MASK;
  int length = out->remote ? 0 : vxcli_dlc_to_bytes(out->dlc);
  if (!out->fd && length > 8) length = 8;
  out->length = length;
  memcpy(out->data, m->data, (size_t)length);
  return 1;
}

void vxcli_log_frame_to_message(const vxcli_log_frame* f, VXMessage* out) {
  uint32_t flags = (f->extended ? VXCLI_FRAME_IDE : 0) | (f->remote ? VXCLI_FRAME_RTR : 0) |
                   (f->brs ? VXCLI_FRAME_BRS : 0) | (f->fd ? VXCLI_FRAME_FDF : 0);
  int length = f->length < 0 ? 0 : f->length > 64 ? 64 : f->length;
  vxcli_can_message_init(out, f->id, flags, (uint8_t)(f->dlc & 0x0F), f->data, length);
}

void vxcli_log_frame_to_lin_message(const vxcli_log_frame* f, VXLinMessage* out) {
  memset(out, 0, sizeof *out);
  int length = f->length < 0 ? 0 : f->length > 8 ? 8 : f->length;
  out->id = (uint8_t)(f->id & 0x3F);
  out->control = (uint8_t)(length | VX_LIN_CTRL_MASTER_DATA |
                           (f->lin_enhanced ? VX_LIN_CTRL_ENHANCED : 0));
  memcpy(out->data, f->data, (size_t)length);
  // The recorded checksum goes out as it was on the bus, wrong ones included.
  out->checksum = f->lin_checksum;
  out->flags = VX_LIN_FLAG_OWN_CHECKSUM;
}

uint64_t vxcli_message_time_ns(VXHandle channel_handle, const VXMessage* message) {
  uint64_t ns = 0;
  if (channel_handle && VX_GetDataPtpTimestamp(channel_handle, message, &ns) == VX_OK) return ns;
  return (uint64_t)message->timestamp * 1000u;
}

int vxcli_blf_write(vxcli_blf_handle* handle, VXHandle channel_handle, const VXMessage* message,
                    int channel_number, int lin_checksum_model, int) {
  BLFWriter* w = vxcli_blf_writer(handle);
  if (!w || !message || channel_number < 1 || blf_writer_failed(w)) return -1;
  vxcli_log_frame f;
  if (!vxcli_log_frame_from_message(message, channel_number, &f)) return 0;
  uint64_t ns = vxcli_message_time_ns(channel_handle, message);
  if (f.is_lin) {
    on_lin_message_received_ex(w, ns, (uint8_t)f.id, f.data, (uint8_t)f.dlc, channel_number - 1,
                               f.lin_checksum, f.tx ? 1 : 0, 0, 0,
                               (uint8_t)(lin_checksum_model < 0 ? 2 : lin_checksum_model), true);
    return 1;
  }
  on_can_message_received(w, ns, f.id, message->data, (uint8_t)f.dlc, channel_number - 1,
                          f.extended, f.remote, false, f.fd, !f.tx, f.brs, f.esi);
  return 1;
}
