// Hardware TX task tables: building entries from command options, table helpers and
// the standalone commands. The daemon builds its entries with the same functions so
// both paths accept and refuse exactly the same input.
#pragma once

#include <cstddef>
#include <cstdint>

#include "vxapi.h"

inline constexpr int VXCLI_TXTASK_TABLE = 64;

// Option texts of "txtask add" (null when absent).
struct vxcli_txtask_options {
  const char* message;  // --message or --id
  const char* cycle;
  const char* data;
  const char* type;
  const char* flags;
  const char* rounds;
  const char* delay;
  const char* inc_startbit;
  const char* inc_nbits;
  const char* inc_step;
  const char* inc_min;
  const char* inc_max;
  const char* checksum;  // LIN slave responses
};

// Fills the options from a getter such as vxcli_get_option or the daemon's words.
template <class Get>
void vxcli_txtask_read_options(Get get, vxcli_txtask_options* o) {
  o->message = get("message");
  if (!o->message) o->message = get("id");
  o->cycle = get("cycle");
  o->data = get("data");
  o->type = get("type");
  o->flags = get("flags");
  o->rounds = get("rounds");
  o->delay = get("delay");
  o->inc_startbit = get("inc-startbit");
  o->inc_nbits = get("inc-nbits");
  o->inc_step = get("inc-step");
  o->inc_min = get("inc-min");
  o->inc_max = get("inc-max");
  o->checksum = get("checksum");
}

// Task type from its --type word (null = fixed); 1..5, or -1 for an unknown word.
int vxcli_txtask_type_from_word(const char* word);
// "fixed", "incdata", "incid", "randomdata", "randomid", else "unknown".
const char* vxcli_txtask_type_name(int type);
bool vxcli_txtask_in_use(const VXTxTask& task);
// Identifier shown for an entry: the CAN identifier (29-bit with the extended
// flag) or the LIN frame identifier of LIN entries.
uint32_t vxcli_txtask_shown_id(const VXTxTask& task);
// Lowest free entry among count, or -1 when all are in use.
int vxcli_txtask_first_free(const VXTxTask* table, int count);
// Table length that keeps every entry in use (highest used index + 1).
int vxcli_txtask_used_length(const VXTxTask* table, int count);

// Builds the entry "txtask add" asks for. lin selects a LIN slave response
// (identifier 0..0x3F, cycle 0). note_decimal prints the note
// for small decimal identifiers. 0, or -1 with the message in error.
int vxcli_txtask_build(const vxcli_txtask_options& o, bool lin, bool note_decimal, VXTxTask* out,
                       char* error, size_t size);

// Preloads the device's response buffer from a LIN slave-response entry so the
// first header after the table is written is answered; 0 or the library status.
uint32_t vxcli_txtask_prime_response(VXHandle handle, const VXTxTask& task);

// Frame flag bits from "ide,rtr" (words separated by ',', '+' or blanks); -1 for
// an unknown word.
int vxcli_txtask_parse_flag_words(const char* text, uint32_t* flags);

// Standalone command handlers (words after the command path); 0 or 1.
int vxcli_txtask_add(int count, char** words);
int vxcli_txtask_remove(int count, char** words);
int vxcli_txtask_list(int count, char** words);
