// Hardware route tables: entries, matching and the standalone commands. The daemon
// keeps its copies with the same helpers.
#pragma once

#include <cstdint>

#include "vxapi.h"

inline constexpr int VXCLI_ROUTE_TABLE = 64;

// One route entry; target is the destination port (unicast) or port mask (broadcast).
struct vxcli_route_request {
  int type;          // VX_ROUTE_UNICAST or VX_ROUTE_BROADCAST
  int src_port;
  int target;
  bool has_id;
  uint32_t id;
  bool has_flags;
  uint32_t flags;
};
void vxcli_route_build(const vxcli_route_request& r, VXRoute* out);
const char* vxcli_route_type_name(int type);
int vxcli_route_first_free(const VXRoute* table, int count);
int vxcli_route_used_length(const VXRoute* table, int count);
// Clears every used entry matching the filters; returns how many were cleared.
int vxcli_route_remove_matching(VXRoute* table, int count, bool has_target, int target,
                                bool has_id, uint32_t id);

int vxcli_route_add(int count, char** words);
int vxcli_route_remove(int count, char** words);
int vxcli_route_list(int count, char** words);
