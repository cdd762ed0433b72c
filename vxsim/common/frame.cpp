#include "frame.h"

#include <cstring>

namespace vxsim {

uint32_t id_from_word(uint32_t word, bool extended) {
  uint32_t base = word & VX_ID_STD_MASK;
  if (!extended) return base;
  return (base << 18) | ((word >> VX_ID_EXT_SHIFT) & VX_ID_EXT_MASK);
}

uint32_t id_to_word(uint32_t id, bool extended) {
  if (!extended) return id & VX_ID_STD_MASK;
  return ((id >> 18) & VX_ID_STD_MASK) | ((id & VX_ID_EXT_MASK) << VX_ID_EXT_SHIFT);
}

unsigned dlc_to_bytes(unsigned code) {
  static const unsigned table[16] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64};
  return code < 16 ? table[code] : 64;
}

unsigned bytes_to_dlc(unsigned bytes) {
  if (bytes <= 8) return bytes;
  for (unsigned code = 9; code < 15; ++code)
    if (bytes <= dlc_to_bytes(code)) return code;
  return 15;
}

unsigned can_payload_length(const VXMessage& m) {
  unsigned code = m.control & VX_CTRL_DLC_MASK;
  if (m.control & VX_CTRL_RTR) return 0;
  if (m.control & VX_CTRL_EDL) return dlc_to_bytes(code);
  return code > 8 ? 8 : code;
}

uint8_t can_frame_flags(const VXMessage& m) {
  uint8_t f = 0;
  if (m.control & VX_CTRL_IDE) f |= VX_FRAME_IDE;
  if (m.control & VX_CTRL_RTR) f |= VX_FRAME_RTR;
  if (m.control & VX_CTRL_BRS) f |= VX_FRAME_BRS;
  if (m.control & VX_CTRL_EDL) f |= VX_FRAME_FDF;
  if (m.flags & VX_MSGF_ESI) f |= VX_FRAME_ESI;
  return f;
}

uint32_t can_plain_id(const VXMessage& m) { return id_from_word(m.id, (m.control & VX_CTRL_IDE) != 0); }

uint8_t lin_pid(uint8_t id) {
  auto bit = [id](int n) { return (id >> n) & 1; };
  uint8_t p0 = bit(0) ^ bit(1) ^ bit(2) ^ bit(4);
  uint8_t p1 = !(bit(1) ^ bit(3) ^ bit(4) ^ bit(5));
  return static_cast<uint8_t>((id & 0x3F) | (p0 << 6) | (p1 << 7));
}

uint8_t lin_checksum(const uint8_t* data, unsigned length, uint8_t id, unsigned type) {
  unsigned sum = type == VX_LIN_CHECKSUM_ENHANCED ? lin_pid(id) : 0;
  for (unsigned i = 0; i < length; ++i) {
    sum += data[i];
    if (sum >= 256) sum -= 255;
  }
  return static_cast<uint8_t>(~sum & 0xFF);
}

unsigned lin_expected_model(uint8_t id, unsigned configured_model, uint8_t version) {
  if (id == 0x3C || id == 0x3D || version == 0x13) return VX_LIN_CHECKSUM_CLASSIC;
  return configured_model == VX_LIN_CHECKSUM_CLASSIC ? VX_LIN_CHECKSUM_CLASSIC
                                                     : VX_LIN_CHECKSUM_ENHANCED;
}

namespace {

bool filter_matches(const VXRxFilter& f, uint32_t id, uint8_t flags) {
  if (((id ^ f.id_value) & f.id_mask) != 0) return false;
  if (f.range_high != 0 && (id < f.range_low || id > f.range_high)) return false;
  return ((flags ^ f.flags_value) & f.flags_mask) == 0;
}

}  // namespace

bool rx_filters_pass(const VXRxFilter* filters, unsigned count, const VXMessage& m) {
  uint32_t id = can_plain_id(m);
  uint8_t flags = can_frame_flags(m);
  bool have_accept = false, accepted = false;
  for (unsigned i = 0; i < count; ++i) {
    const VXRxFilter& f = filters[i];
    if (f.mode == VX_RXFILTER_REJECT) {
      if (filter_matches(f, id, flags)) return false;
    } else if (f.mode == VX_RXFILTER_ACCEPT) {
      have_accept = true;
      if (!accepted && filter_matches(f, id, flags)) accepted = true;
    }
  }
  return !have_accept || accepted;
}

bool route_matches(const VXRoute& r, const VXMessage& m) {
  if (((can_plain_id(m) ^ r.id_value) & r.id_mask) != 0) return false;
  return ((can_frame_flags(m) ^ r.flags_value) & r.flags_mask) == 0;
}

void make_can_record(VXMessage& m, uint32_t plain_id, uint8_t frame_flags, const uint8_t* data,
                     unsigned length) {
  std::memset(&m, 0, sizeof m);
  m.header = VX_MSG_HEADER_CAN;
  m.length = VX_MSG_PAYLOAD_LEN;
  bool ext = frame_flags & VX_FRAME_IDE;
  bool fd = frame_flags & VX_FRAME_FDF;
  m.id = id_to_word(plain_id, ext);
  if (length > (fd ? 64u : 8u)) length = fd ? 64u : 8u;
  m.control = static_cast<uint8_t>(bytes_to_dlc(length) & VX_CTRL_DLC_MASK);
  if (ext) m.control |= VX_CTRL_IDE;
  if ((frame_flags & VX_FRAME_RTR) && !fd) m.control |= VX_CTRL_RTR;
  if (fd) m.control |= VX_CTRL_EDL;
  if (fd && (frame_flags & VX_FRAME_BRS)) m.control |= VX_CTRL_BRS;
  if (fd && (frame_flags & VX_FRAME_ESI)) m.flags |= VX_MSGF_ESI;
  if (data && length && !(m.control & VX_CTRL_RTR)) std::memcpy(m.data, data, length);
}

uint32_t get_bits(const uint8_t* data, unsigned start, unsigned nbits) {
  uint32_t v = 0;
  for (unsigned i = 0; i < nbits; ++i) {
    unsigned bit = start + i;
    if ((data[bit / 8] >> (bit % 8)) & 1) v |= 1u << i;
  }
  return v;
}

void set_bits(uint8_t* data, unsigned start, unsigned nbits, uint32_t value) {
  for (unsigned i = 0; i < nbits; ++i) {
    unsigned bit = start + i;
    uint8_t mask = static_cast<uint8_t>(1u << (bit % 8));
    if ((value >> i) & 1) data[bit / 8] |= mask;
    else data[bit / 8] &= static_cast<uint8_t>(~mask);
  }
}

const char* status_text(VXStatus status) {
  switch (status) {
    case VX_OK: return "OK";
    case VX_ERR_TX_BUFFER_FULL: return "Transmit buffer full";
    case VX_ERR_BUS_OVERRUN: return "Bus overrun";
    case VX_ERR_BUS_LIGHT_ERROR: return "Bus light error";
    case VX_ERR_BUS_HEAVY_ERROR: return "Bus heavy error";
    case VX_ERR_BUS_OFF: return "Bus off";
    case VX_ERR_QUEUE_EMPTY: return "Receive queue empty";
    case VX_ERR_QUEUE_OVERRUN: return "Queue overrun";
    case VX_ERR_TX_QUEUE_FULL: return "Transmit queue full";
    case VX_ERR_REGISTER_TEST: return "Register test error";
    case VX_ERR_NO_DRIVER: return "No driver";
    case VX_ERR_HW_IN_USE: return "Hardware in use";
    case VX_ERR_NET_IN_USE: return "Network in use";
    case VX_ERR_INVALID_HARDWARE: return "Invalid hardware";
    case VX_ERR_INVALID_NETWORK: return "Invalid network";
    case VX_ERR_INVALID_CLIENT: return "Invalid client";
    case VX_ERR_OUT_OF_RESOURCE: return "Out of resource";
    case VX_ERR_INVALID_PARAM_TYPE: return "Invalid parameter type";
    case VX_ERR_INVALID_PARAM_VALUE: return "Invalid parameter value";
    case VX_ERR_UNKNOWN: return "Unknown error";
    case VX_ERR_INVALID_DATA: return "Invalid data";
    case VX_ERR_BUS_PASSIVE: return "Bus passive";
    case VX_ERR_BUS_TIMEOUT: return "Bus timeout";
    case VX_ERR_INVALID_CONFIG: return "Invalid configuration";
    case VX_ERR_CAUTION: return "Caution";
    case VX_ERR_NOT_INITIALIZED: return "Not initialized";
    case VX_ERR_INVALID_OPERATION: return "Invalid operation";
    default: return "Unknown status code";
  }
}

}  // namespace vxsim
