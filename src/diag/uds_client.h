// The UDS endpoint (channel and identifiers) and the transport the uds
// commands talk through. Commands open the transport through an opener so the
// same command code runs on a device channel or, in tests, on a simulated ECU.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "diag/uds.h"
#include "vxapi.h"

struct vxcli_uds_session {
  std::string channel;   // channel text (serial/port, unique id, index or name)
  std::string bitrate;   // optional bitrate text for opening the channel
  uint32_t request_id;
  uint32_t response_id;
  uint8_t request_extended;
  uint8_t response_extended;
  uint8_t fd;
  uint8_t brs;
  uint8_t padding;
  uint8_t pad_byte;
  uint8_t resolved;  // channel, request and response identifier all present
};

// Process-wide endpoint; command-line options override it per command.
extern vxcli_uds_session g_uds_session;

struct vxcli_uds_transport {
  // Both return a device-library status (0 success).
  uint32_t (*send)(void* context, const uint8_t* data, uint32_t length, int32_t timeout_ms);
  uint32_t (*receive)(void* context, uint8_t* buffer, uint32_t* length_in_out, int32_t timeout_ms);
  // Text of the transport's last failure.
  const char* (*error)(void* context);
  // Re-targets the endpoint without reopening the channel (discovery); may be null.
  int (*retarget)(void* context, uint32_t request_id, uint32_t response_id);
  uint64_t (*now_ms)(void* context);
  void (*close)(void* context);
  void* context;
};

// Opens the channel and an ISO-TP link for the session; 0 or -1 with a message.
using vxcli_uds_transport_opener = int (*)(const vxcli_uds_session* session,
                                           const char* cursor_name, vxcli_uds_transport* out,
                                           char* error_text, size_t error_size);
// The device opener is installed by default; tests install their own.
void vxcli_uds_set_transport_opener(vxcli_uds_transport_opener opener);
int vxcli_uds_open_transport(const vxcli_uds_session* session, const char* cursor_name,
                             vxcli_uds_transport* out, char* error_text, size_t error_size);
// The opener that uses a device channel and a direct ISO-TP link.
int vxcli_uds_open_device_transport(const vxcli_uds_session* session, const char* cursor_name,
                                    vxcli_uds_transport* out, char* error_text, size_t error_size);

// A transport over a channel someone else keeps open (the daemon's slot, read
// through its broker when broker_slot >= 0); closing it leaves the channel open.
int vxcli_uds_open_link_transport(const vxcli_uds_session* session, VXHandle channel, int broker_slot,
                                  const char* cursor_name, vxcli_uds_transport* out, char* error_text,
                                  size_t error_size);

// Session from g_uds_session plus "--channel", "--request-id", "--response-id",
// "--flags", "--padding" and "--bitrate". 0, or 1 after reporting.
int vxcli_uds_session_from_options(int count, char** words, vxcli_uds_session* out);
// Applies the options above to *out (which holds the stored session); 0, or 1 with a message.
int vxcli_uds_session_apply_options(int count, char** words, vxcli_uds_session* out,
                                    std::string* error);
// The message for the first missing value, or null when the session is complete.
const char* vxcli_uds_session_missing(const vxcli_uds_session* session);
// 0, or 1 after reporting the first missing value.
int require_uds_session(const vxcli_uds_session* session);
// Fills g_uds_session from a running daemon's "uds config get"; true when one is configured.
bool vxcli_uds_session_load_from_daemon();

// The pending loop with a fixed 5000 ms wait per response; returns the link
// status, *length_in_out is the capacity on entry and the response length on return.
uint32_t read_isotp_with_pending(const vxcli_uds_transport* transport, uint8_t service_id,
                                 uint8_t* buffer, uint32_t* length_in_out);

// "uds request", split so the daemon can run it on its own channels.
struct vxcli_uds_request_plan {
  std::vector<uint8_t> request;
  int suppressed;  // the positive response is suppressed (asked for or bit 7 already set)
  int32_t timeout_ms;
  bool dry_run;
};
// Request bytes (positional, --data or a named service), suppression, --timeout
// and --dry-run; 0, or 1 with the message.
int vxcli_uds_request_plan_from_words(int count, char** words, vxcli_uds_request_plan* plan,
                                      std::string* error);

struct vxcli_uds_request_outcome {
  bool send_failed;
  uint32_t status;  // link status of the send or of the last reception
  bool received;    // a final response is in `response`
  std::vector<uint8_t> response;
  uint32_t pending;
  std::string transport_error;
  const char* state;  // positive_response, negative_response, response_suppressed, no_response
  int rc;
};
void vxcli_uds_request_exchange(const vxcli_uds_transport* transport,
                                const vxcli_uds_request_plan& plan,
                                vxcli_uds_request_outcome* outcome);
// What the command prints for a format (outcome null: the dry run).
std::string vxcli_uds_request_render(const vxcli_uds_request_plan& plan,
                                     const vxcli_uds_request_outcome* outcome, uint32_t format);
// The failure message of an outcome, empty on success.
std::string vxcli_uds_request_error(const vxcli_uds_request_plan& plan,
                                    const vxcli_uds_request_outcome& outcome);

// "uds unlock": --level (1..126) and --algo; 0, or 1 with the message.
int vxcli_uds_unlock_plan_from_words(int count, char** words, uint32_t* level, std::string* algo,
                                     std::string* error);
struct vxcli_seedkey;
// Security access over an open transport with a loaded library; 0 with what
// the command prints in *body, or 1 with the message.
int vxcli_uds_unlock_run(const vxcli_uds_transport* transport, const vxcli_seedkey* library,
                         uint32_t level, const std::string& algo, uint32_t format, std::string* body,
                         std::string* error);
