// Received-frame printing shared by the standalone capture and the daemon's
// receive threads, so both answer "message recv" identically.
#pragma once

#include <cstddef>
#include <cstdint>

#include "json/json.h"
#include "vxapi.h"

struct DbcLoadedFile;

// Software filter, counting, relative time and per-format layout of one capture.
struct vxcli_recv_printer {
  uint32_t format;       // VXCLI_FORMAT_*
  uint32_t bus;          // VXCLI_BUS_CAN or VXCLI_BUS_LIN; 0 takes both
  bool channel_prefix;   // text: "ch%d " before each line (several channels)
  bool filter;
  uint32_t filter_id;
  uint32_t filter_mask;
  long count;            // 0 = unlimited
  const DbcLoadedFile* database;
  bool decode;
  // Running 64-bit device time built from the 32-bit clock, and the first frame's time.
  bool have_time;
  uint32_t last_timestamp;
  uint64_t clock_us;
  uint64_t first_us;
  bool can_header;       // csv header already printed
  bool lin_header;
  long received;
  long errors;
  bool overflow;         // json document hit its limit
  vxcli_json_writer line;      // text/csv/jsonl: the last formatted frame
  vxcli_json_writer document;  // json: the whole answer, opened with {"messages":[
};

// Zeroes the printer and allocates its buffers; json_limit bounds the json document.
// 0, or -1 when out of memory (buffers freed again).
int vxcli_recv_printer_init(vxcli_recv_printer* p, uint32_t format, size_t json_limit);
void vxcli_recv_printer_free(vxcli_recv_printer* p);
// One device record of channel channel_index: 1 printed (non-json formats: the text is in
// p->line, including a csv header when first), 0 filtered out or not a frame of the bus,
// -1 the json document overflowed (capture must stop).
int vxcli_recv_printer_add(vxcli_recv_printer* p, int channel_index, const VXMessage* m);
bool vxcli_recv_printer_count_reached(const vxcli_recv_printer* p);
// Closes the json document with the totals (or the no-frames error object); 0, or -1
// when it no longer fits its limit.
int vxcli_recv_printer_finish_json(vxcli_recv_printer* p, int channels);
