// Broker access for ISO-TP links inside the daemon: one named cursor per
// link, filtered on the receive identifier.
#include <new>

#include "daemon/rx_broker.h"
#include "diag/isotp_link.h"

namespace {

bool slot_attached(int slot) { return vxcli_rx_broker_is_attached(slot) != 0; }

void* open_cursor(int slot, const char* name, uint32_t rx_id, uint32_t mask) {
  auto* cursor = new (std::nothrow) vxcli_rx_cursor;
  if (!cursor) return nullptr;
  vxcli_rx_filter filter;
  vxcli_rx_filter_init(&filter);
  filter.type_mask = 1u << VX_MSG_TYPE_CAN;
  filter.direction = 1;  // our own transmissions come back flagged; never reassemble them
  filter.mask = mask;
  filter.value = rx_id & mask;
  if (vxcli_rx_broker_cursor_open_named(slot, 0, name, &filter, cursor) != 0) {
    delete cursor;
    return nullptr;
  }
  return cursor;
}

int read(void* cursor, VXMessage* message, int32_t timeout_ms) {
  vxcli_rx_record record;
  switch (vxcli_rx_broker_read(static_cast<vxcli_rx_cursor*>(cursor), &record, timeout_ms)) {
    case VXCLI_RX_READ_RECORD:
      *message = record.message;
      return VXCLI_ISOTP_OK;
    case VXCLI_RX_READ_NONE:
      return VXCLI_ISOTP_TIMEOUT;
    case VXCLI_RX_READ_OVERRUN:
      return VXCLI_ISOTP_BROKER_GAP;
    case VXCLI_RX_READ_RESET:
      return VXCLI_ISOTP_BROKER_EPOCH;
    case VXCLI_RX_READ_DETACHED:
      return VXCLI_ISOTP_CHANNEL_CLOSED;
    default:
      return VXCLI_ISOTP_IO_ERROR;
  }
}

void close_cursor(void* cursor) {
  auto* c = static_cast<vxcli_rx_cursor*>(cursor);
  vxcli_rx_broker_cursor_close(c);
  delete c;
}

const vxcli_isotp_broker_ops kOps = {slot_attached, open_cursor, read, close_cursor};

}  // namespace

void vxcli_isotp_use_rx_broker() { vxcli_isotp_set_broker_ops(&kOps); }
