// Handlers of the isotp and uds commands: the words after the command path; 0 or 1.
#pragma once

#include <cstdint>
#include <string>

#include <vector>

#include "diag/isotp_link.h"

int vxcli_isotp_send_command(int count, char** words);
int vxcli_isotp_recv_command(int count, char** words);
int vxcli_isotp_ecu_sim_command(int count, char** words);

int vxcli_uds_request_command(int count, char** words);
int vxcli_uds_unlock_command(int count, char** words);
int vxcli_uds_download_command(int count, char** words);
int vxcli_uds_present_send_command(int count, char** words);
int vxcli_uds_discover_command(int count, char** words);
int vxcli_uds_load_command(int count, char** words);
int vxcli_uds_save_command(int count, char** words);
int vxcli_uds_list_command(int count, char** words);
// "uds dtc <action> ...": words start with the action.
int vxcli_uds_dtc_command(int count, char** words);

// One transfer as isotp send/recv print it ("tx" or "rx") in the given output format.
std::string vxcli_isotp_render_transfer(const char* direction, const char* channel, uint32_t id, bool fd,
                                        const uint8_t* data, uint32_t length, const vxcli_isotp_stats& stats,
                                        uint32_t format);

// The endpoint options of the isotp commands; const char* fields point into the words.
struct vxcli_isotp_endpoint {
  const char* channel = nullptr;
  const char* bitrate = nullptr;
  uint32_t reqid = 0, respid = 0;
  bool fd = false, brs = false;
  int padding = 0;
  uint8_t pad_byte = 0xCC;
  int64_t timeout = 5000;
  int64_t st_min = 0, block_size = -1;  // -1: the link default
};
// 0, or 1 with the message.
int vxcli_isotp_endpoint_from_words(int count, char** words, vxcli_isotp_endpoint* endpoint,
                                    std::string* error);
// Device message template of one direction (identifier word, IDE/EDL/BRS, DLC 8 or 15).
VXMessage vxcli_isotp_template(uint32_t id, bool extended, bool fd, bool brs);
// Opens a link for the endpoint (broker_slot < 0: direct on channel); 0 or -1.
int vxcli_isotp_endpoint_link_open(const vxcli_isotp_endpoint& endpoint, int role, vxcli_isotp_link* link,
                                   VXHandle channel, int broker_slot, const char* cursor);
// The --data payload, 1..4095 bytes; 0, or 1 with the message.
int vxcli_isotp_parse_payload(const char* text, std::vector<uint8_t>* out, std::string* error);
