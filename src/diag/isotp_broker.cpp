// Broker access for ISO-TP links inside the daemon: one named cursor per
// link, filtered on the receive identifier. Records are taken in small
// batches: a burst of consecutive frames costs one lock and one wake-up.
#include <new>

#include "daemon/rx_broker.h"
#include "diag/isotp_link.h"

namespace {

struct BrokerCursor {
  vxcli_rx_cursor cursor;
  vxcli_rx_record records[16];
  size_t count = 0;
  size_t next = 0;
  bool gap = false;  // an overrun right after the buffered records
};

bool slot_attached(int slot) { return vxcli_rx_broker_is_attached(slot) != 0; }

void* open_cursor(int slot, const char* name, uint32_t rx_id, uint32_t mask) {
  auto* c = new (std::nothrow) BrokerCursor;
  if (!c) return nullptr;
  vxcli_rx_filter filter;
  vxcli_rx_filter_init(&filter);
  filter.type_mask = 1u << VX_MSG_TYPE_CAN;
  filter.direction = 1;  // our own transmissions come back flagged; never reassemble them
  filter.mask = mask;
  filter.value = rx_id & mask;
  if (vxcli_rx_broker_cursor_open_named(slot, 0, name, &filter, &c->cursor) != 0) {
    delete c;
    return nullptr;
  }
  return c;
}

int read(void* cursor, VXMessage* message, int32_t timeout_ms) {
  auto* c = static_cast<BrokerCursor*>(cursor);
  if (c->next < c->count) {
    *message = c->records[c->next++].message;
    return VXCLI_ISOTP_OK;
  }
  if (c->gap) {
    c->gap = false;
    return VXCLI_ISOTP_BROKER_GAP;
  }
  const uint64_t overruns = c->cursor.overruns;
  size_t n = 0;
  int result = vxcli_rx_broker_read_batch(&c->cursor, c->records, 16, &n, timeout_ms);
  if (result == VXCLI_RX_READ_RECORD && n > 0) {
    // A batch ends at an overrun; the loss lies after the records it returned.
    c->gap = c->cursor.overruns != overruns;
    c->count = n;
    c->next = 1;
    *message = c->records[0].message;
    return VXCLI_ISOTP_OK;
  }
  switch (result) {
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
  auto* c = static_cast<BrokerCursor*>(cursor);
  vxcli_rx_broker_cursor_close(&c->cursor);
  delete c;
}

const vxcli_isotp_broker_ops kOps = {slot_attached, open_cursor, read, close_cursor};

}  // namespace

void vxcli_isotp_use_rx_broker() { vxcli_isotp_set_broker_ops(&kOps); }
