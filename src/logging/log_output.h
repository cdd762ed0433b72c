// One log file fed with device records from one or more channels: ASC text or
// BLF, whichever the caller chose. Standalone logging and the daemon's logging
// thread both write through this, so their files are the same.
//
// Records of several channels reach a logger along separate paths (device
// queues, broker workers), so a frame can turn up a little after a later
// frame of another channel. The output therefore holds records back and
// writes them in time order: a record goes to the file once one 100 ms newer
// has been added, once nothing was added for 100 ms, or when too many are
// held.
#pragma once

#include <cstddef>
#include <cstdint>

#include "logging/asc.h"
#include "vxapi.h"

// A received record with its time in ns and the 1-based logical channel it is
// logged under. The time is wall-clock (PTP) time, or a device clock's, which
// the output moves onto the wall clock at the first such record.
struct vxcli_log_record {
  uint64_t ns;
  int logical;
  VXMessage message;
};

struct vxcli_log_output;

// Creates path and writes the ASC header (dated start_ns, local time, with
// the channel labels) or the BLF placeholder header. Null with a message.
vxcli_log_output* vxcli_log_output_open(const char* path, bool blf, uint64_t start_ns,
                                        const vxcli_asc_channel_label* labels, int count,
                                        char* message, size_t message_size);
// Adds records in any order (equal times keep their order, so each channel's
// own order survives) and writes those that are due; call it with count 0
// while no records come, so that held ones follow. Returns the number of
// frames written by this call, or -1 once any write failed (sticky). Records
// of other kinds are dropped.
long vxcli_log_output_write(vxcli_log_output* output, const vxcli_log_record* records, size_t count);
// Writes every record still held; frames written or -1.
long vxcli_log_output_write_all(vxcli_log_output* output);
// Hands buffered output to the file (ASC lines; BLF completed containers), so
// that a crash loses little; 0, or -1 once any write failed.
int vxcli_log_output_flush(vxcli_log_output* output);
// As flush, but BLF also closes the open container: for pauses in traffic, so
// that everything written so far is in the file.
int vxcli_log_output_checkpoint(vxcli_log_output* output);
// Writes what is held, ends the file (ASC trigger block end, BLF final
// header) and frees output; 0, or -1 when any write failed.
int vxcli_log_output_close(vxcli_log_output* output);
