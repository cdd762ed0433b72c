// The daemon's per-slot device tables: TX task and route copies, device limits and
// the LIN system schedule. All of it runs under the daemon command lock.
#pragma once

#include <cstdint>

#include "vxapi.h"

// One entry of the LIN system schedule: the header task and the slot time that
// follows it. An entry whose first byte is 0 is unused.
struct DaemonScheduleEntry {
  VXTxTask task;
  uint32_t delay_ms;
};

// Device limits of an open slot, from the device's statistics with fallbacks.
VXStatus daemon_get_stat(int slot, uint16_t item, uint32_t* value);
int daemon_txtask_capacity(int slot);
int daemon_rxfilter_count(int slot);
int daemon_route_capacity(int slot);

// Writes count TX tasks (0 clears the table) and, only when the device accepted
// them, makes them the slot's copy. VX_ERR_INVALID_PARAM_VALUE for a closed slot
// or a count beyond the slot's capacity.
VXStatus daemon_apply_txtasks(int slot, const VXTxTask* tasks, int count);
// The same for the slot's route table.
VXStatus daemon_apply_routes(int slot, const VXRoute* routes, int count);
// Makes the slot's copies what the device holds now (a slot opened on a port
// that already runs tasks or routes); copies are cleared when it cannot say.
void daemon_seed_slot_tables(int slot);
// Writes the slot's copies back to the device after a reopen; 0 or the first
// failing status.
VXStatus daemon_restore_slot_tables(int slot);

// Lays count schedule entries out as header tasks repeating once per round: each
// task's delay is its offset in the round, its cycle the round's length. table
// receives 64 records; *length the number in use. VX_ERR_INVALID_PARAM_VALUE for
// more than 64 entries, a zero delay, no delay at all or a round beyond 65535 ms.
VXStatus daemon_build_system_schedule(const DaemonScheduleEntry* entries, int count, VXTxTask* table,
                                      int* length);
// Builds the schedule and applies it to the slot, keeping the slot's LIN
// responses; count 0 leaves only the responses.
VXStatus daemon_compile_system_schedule(int slot, const DaemonScheduleEntry* entries, int count,
                                        VXTxTask* table);
