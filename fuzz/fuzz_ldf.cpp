// LDF reader and the lookups the commands make on what it accepted.
#include <cstdint>
#include <string>

#include "database/ldf_model.h"
#include "fuzz_util.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  LdfModel model;
  std::string error;
  if (parse_ldf_text(fuzz::text(data, size), "fuzz.ldf", model, error) != 0) return 0;
  uint8_t payload[8];
  for (const LdfFrame& frame : model.frames) {
    frame_initial_payload(model, frame, payload);
    checksum_name(model, frame);
    frame_operation(model, frame);
  }
  for (const LdfSchedule& schedule : model.schedules)
    for (const LdfScheduleEntry& entry : schedule.entries) schedule_entry_frame(model, entry);
  return 0;
}
