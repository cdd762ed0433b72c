// CAN databases in DBC form: the reader (messages and their signals), the
// signal codec (bits <-> raw <-> physical) and the library entry points that
// message send/receive and the daemon use.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

enum ByteOrder : int {
  DBC_MOTOROLA = 0,  // big-endian, DBC @0
  DBC_INTEL = 1,     // little-endian, DBC @1
};

// Multiplexing role of a signal.
enum : int {
  DBC_PLAIN = 0,
  DBC_MULTIPLEXED = 1,  // m<N>: present only while the switch equals N
  DBC_MULTIPLEXOR = 2,  // M: the message's switch
};

// Flags returned by vxcli_dbc_encode_to_buf.
enum : uint32_t {
  VXCLI_DBC_FLAG_EXTENDED = 0x1,
  VXCLI_DBC_FLAG_BRS = 0x4,
  VXCLI_DBC_FLAG_FD = 0x8,
};

class Signal {
 public:
  std::string name;
  ByteOrder order = DBC_INTEL;
  uint16_t startBit = 0;  // DBC numbering: LSB for intel, MSB for motorola
  uint16_t length = 0;
  int sign = 0;  // 1 signed (two's complement), 0 unsigned
  double minimum = 0;
  double maximum = 0;
  double factor = 1;
  double offset = 0;
  std::string unit;
  int multiplexor = DBC_PLAIN;
  int multiplexNum = 0;
  std::set<std::string> to;
  std::vector<std::pair<std::string, std::string>> valueDescriptions;

  // DBC bit number of the least significant bit of a motorola signal; 0 when
  // the start bit lies beyond a 64-byte payload.
  uint16_t getLastBit() const;
};

class Message {
 public:
  std::string name;
  uint32_t id = 0;  // as written; bit 31 marks a 29-bit identifier
  uint64_t size = 0;
  std::string from;
  std::vector<Signal> signals;
  uint32_t cycleTime = 0;
  bool extended = false;
  bool fd = false;
  bool brs = false;

  std::set<std::string> getTo() const;
};

// Reads a whole DBC text. Throws std::invalid_argument("The File could not be
// opened") from the path constructor; nothing else is thrown for bad input.
class DBCIterator {
 public:
  DBCIterator() = default;
  explicit DBCIterator(const std::string& path);
  explicit DBCIterator(std::istream& stream);

  void init(std::istream& stream);

  using const_iterator = std::vector<Message>::const_iterator;
  const_iterator begin() const { return messages_.begin(); }
  const_iterator end() const { return messages_.end(); }
  size_t size() const { return messages_.size(); }
  const Message& operator[](size_t index) const { return messages_[index]; }
  const std::vector<Message>& messages() const { return messages_; }

 private:
  std::vector<Message> messages_;
};

std::istream& operator>>(std::istream& stream, Message& message);
std::istream& operator>>(std::istream& stream, Signal& signal);

// Text helpers of the reader.
std::vector<std::string> split(const std::string& text, char delimiter);
void split(const std::string& text, char delimiter, std::vector<std::string>& out);
std::string trim(const std::string& text, const std::string& characters);
std::string CleanDbcToken(const std::string& token);
bool ParseDbcBool(const std::string& token);
bool IsDbcAttribute(const std::string& token, const std::string& name);

// ---- Codec primitives ----

// Raw value of the bits of one signal. byteOrder 1 reads startBit upward;
// anything else reads a motorola signal from motorolaStartBit (its MSB).
// Bits beyond dataLength read as 0; returns 0 for null data, bitLength outside
// 1..64 or dataLength above 64.
uint64_t vxcli_dbc_extract_raw(const uint8_t* data, size_t dataLength, uint32_t startBit,
                               uint32_t bitLength, int byteOrder, uint32_t motorolaStartBit);
// raw * factor + offset, sign-extending from bitLength when isSigned.
double vxcli_dbc_raw_to_physical(uint64_t raw, bool isSigned, uint32_t bitLength, double factor,
                                 double offset);
// Writes the low bitLength bits of raw; bits beyond bufferLength are dropped.
void vxcli_dbc_insert_raw(uint8_t* buffer, size_t bufferLength, uint32_t startBit,
                          uint32_t bitLength, ByteOrder order, uint32_t motorolaStartBit,
                          uint64_t raw);
// Raw value for a physical one: round half away from zero of
// (value - offset) / factor, masked to the signal's bits (no clamping).
uint64_t vxcli_dbc_physical_to_raw(const Signal& signal, double value);

// The 512-entry motorola bit order table (entry 8j+m = 8j+7-m).
const uint16_t* vxcli_dbc_motorola_bittable();

// ---- Messages ----

// One parsed DBC file of the process-wide list.
struct DbcLoadedFile {
  std::string path;
  DBCIterator dbc;
  // First message of each identifier (bit 31 cleared) and name; filled by
  // vxcli_dbc_index_file, used by vxcli_dbc_find_message when present.
  std::unordered_map<uint32_t, size_t> by_id;
  std::unordered_map<std::string, size_t> by_name;
};
void vxcli_dbc_index_file(DbcLoadedFile& file);

// Selector: "0x1A0", "1A0" (hex when it has hex letters), "416" (decimal, with
// a note on stderr below 2048) or a message name; ids compare without bit 31,
// and a number that matches nothing falls back to the name.
const Message* vxcli_dbc_find_message(const DbcLoadedFile& file, const char* selector);
const Message* vxcli_dbc_find_message(const std::vector<Message>& messages, const char* selector);
bool vxcli_dbc_signal_is_active(const Message& message, const Signal& signal, const uint8_t* data,
                                size_t dataLength);
// Finds and parses (once per process, at most 8 files) the DBC that a
// --database/--dbc selector names; null with a message in error otherwise.
const DbcLoadedFile* vxcli_dbc_resolve(const char* selector, char* error, size_t errorSize);

struct DbcSignalValue {
  const Signal* signal;
  uint64_t raw;  // as extracted, before sign extension
  double physical;
};

// Decodes the active signals of a message from a payload of dataLength bytes
// (bits beyond it read as zero). Returns the number written to out (at most capacity).
size_t vxcli_dbc_decode_message(const Message& message, const uint8_t* data, size_t dataLength,
                                DbcSignalValue* out, size_t capacity);
// Payload length that decoding uses: the larger of the bytes given and the message size.
size_t vxcli_dbc_payload_length(const Message& message, size_t dataLength);
bool vxcli_dbc_is_fd(const Message& message);
bool vxcli_dbc_is_brs(const Message& message);

// Writes the decode object of one message ({"message":...,"signals":{...}})
// into out. 0, or -3 when out cannot even hold the message header.
int vxcli_dbc_message_decode_json(const Message& message, const uint8_t* data, size_t dataLength,
                                  char* out, size_t outSize);

// Encodes signal assignments (unknown names ignored) into a cleared 64-byte
// buffer; outLength = message size (8 when 0, at most 64). Returns the
// VXCLI_DBC_FLAG_* bits of the message.
uint32_t vxcli_dbc_encode_message(const Message& message, int count,
                                  const char* const* signalNames, const double* values,
                                  uint8_t outBuffer[64], uint32_t* outLength);
// {"message":...,"id":...,"dlc":...,"extended":...,"fd":...,"brs":...,"data":"..."}
std::string vxcli_dbc_encode_json(const Message& message, const uint8_t* data, uint32_t length);

// ---- Library entry points ----
// Return 0, -1 when the database does not resolve, -2 when the message is not
// found, -3 for a missing argument or an output buffer too small.

int vxcli_dbc_encode_to_buf(const char* messageSelector, const char* databaseSelector, int count,
                            const char* const* signalNames, const double* values,
                            uint8_t outBuffer[64], uint32_t* outLength, uint32_t* outId,
                            uint32_t* outFlags);
int vxcli_dbc_encode_to_json(const char* messageSelector, const char* databaseSelector, int count,
                             const char* const* signalNames, const double* values, char* out,
                             size_t outSize);
int vxcli_dbc_decode_to_json(const char* messageSelector, const char* databaseSelector,
                             const uint8_t* data, size_t dataLength, char* out, size_t outSize);
