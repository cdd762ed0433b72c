/*
 * vxapi.h - interface of the device library libvxapi64.so.
 *
 * The library gives access to multi-channel CAN / CAN FD / LIN analyzers.
 * Every function returns a 32-bit status (VXStatus): 0 is success, anything
 * else one of the VX_ERR_* values below. No function throws, blocks longer
 * than its documented timeout, or crashes on a bad handle or a null pointer:
 * those are reported as status codes.
 *
 * Calling order: VX_Init, then any number of VX_Enumerate / VX_OpenEx /
 * channel calls / VX_Close, then VX_UnInit. Every function except VX_Init
 * returns VX_ERR_NOT_INITIALIZED before VX_Init succeeded. All functions are
 * thread-safe; several threads may use one channel (writes and reads on one
 * channel are serialised inside the library).
 *
 * Records are little-endian, naturally aligned, and their sizes and offsets
 * are fixed (checked below); they may be copied and stored as raw bytes.
 */
#ifndef VXAPI_H
#define VXAPI_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VXAPI_HEADER_VERSION 0x010E002Au

#if defined(__GNUC__)
#define VXAPI_EXPORT __attribute__((visibility("default")))
#else
#define VXAPI_EXPORT
#endif

#ifdef __cplusplus
#define VXAPI_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define VXAPI_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* ------------------------------------------------------------------------
 * Status codes
 * --------------------------------------------------------------------- */

typedef uint32_t VXStatus;

#define VX_OK                        0x00000000u
#define VX_ERR_TX_BUFFER_FULL        0x00000001u /* "Transmit buffer full" */
#define VX_ERR_BUS_OVERRUN           0x00000002u /* "Bus overrun" */
#define VX_ERR_BUS_LIGHT_ERROR       0x00000004u /* "Bus light error" */
#define VX_ERR_BUS_HEAVY_ERROR       0x00000008u /* "Bus heavy error" */
#define VX_ERR_BUS_OFF               0x00000010u /* "Bus off" */
#define VX_ERR_QUEUE_EMPTY           0x00000020u /* "Receive queue empty" */
#define VX_ERR_QUEUE_OVERRUN         0x00000040u /* "Queue overrun" */
#define VX_ERR_TX_QUEUE_FULL         0x00000080u /* "Transmit queue full" */
#define VX_ERR_REGISTER_TEST         0x00000100u /* "Register test error" */
#define VX_ERR_NO_DRIVER             0x00000200u /* "No driver" */
#define VX_ERR_HW_IN_USE             0x00000400u /* "Hardware in use" */
#define VX_ERR_NET_IN_USE            0x00000800u /* "Network in use" */
#define VX_ERR_INVALID_HARDWARE      0x00001400u /* "Invalid hardware" */
#define VX_ERR_INVALID_NETWORK       0x00001800u /* "Invalid network" */
#define VX_ERR_INVALID_CLIENT        0x00001C00u /* "Invalid client" */
#define VX_ERR_OUT_OF_RESOURCE       0x00002000u /* "Out of resource" */
#define VX_ERR_INVALID_PARAM_TYPE    0x00004000u /* "Invalid parameter type" */
#define VX_ERR_INVALID_PARAM_VALUE   0x00008000u /* "Invalid parameter value" */
#define VX_ERR_UNKNOWN               0x00010000u /* "Unknown error" */
#define VX_ERR_INVALID_DATA          0x00020000u /* "Invalid data" */
#define VX_ERR_BUS_PASSIVE           0x00040000u /* "Bus passive" */
#define VX_ERR_BUS_TIMEOUT           0x00080000u /* "Bus timeout" */
#define VX_ERR_INVALID_CONFIG        0x01000000u /* "Invalid configuration" */
#define VX_ERR_CAUTION               0x02000000u /* "Caution" */
#define VX_ERR_NOT_INITIALIZED       0x04000000u /* "Not initialized" */
#define VX_ERR_INVALID_OPERATION     0x08000000u /* "Invalid operation" */

/* How the library uses them:
 *   VX_ERR_INVALID_CLIENT      unknown, closed or null channel handle
 *   VX_ERR_INVALID_HARDWARE    the channel's device was unplugged, or the
 *                              channel information names no present port
 *   VX_ERR_INVALID_PARAM_VALUE null pointer, count or field out of range,
 *                              malformed record
 *   VX_ERR_INVALID_OPERATION   the call does not fit the channel (a LIN call
 *                              on a CAN channel, writing in listen-only mode,
 *                              a CAN FD frame on a channel not opened for FD)
 *   VX_ERR_NO_DRIVER           the device service could not be reached or
 *                              started
 */

/* Timeout value that waits without limit. */
#define VX_TIMEOUT_INFINITE 0xFFFFFFFFu

/* ------------------------------------------------------------------------
 * Handles
 * --------------------------------------------------------------------- */

/* An open channel. Opaque; 0 (NULL) is never a valid handle. A handle is
 * valid in the process that opened it until VX_Close or VX_UnInit. */
typedef struct VXChannel_* VXHandle;

/* A channel's notification descriptor: a file descriptor (always >= 3, so 0
 * means "none") that becomes readable (poll/epoll POLLIN) when the channel's
 * receive queue holds records. It is owned by the channel and closed by
 * VX_Close; do not read from or close it yourself. VX_Read clears it when it
 * finds the queue empty. */
typedef int VXNotifyHandle;

/* ------------------------------------------------------------------------
 * Channel information (one enumeration entry), 108 bytes
 * --------------------------------------------------------------------- */

#define VX_CAP_LIN   0x0001u
#define VX_CAP_CAN   0x0002u
#define VX_CAP_CANFD 0x0004u
#define VX_CAP_FR    0x0008u
#define VX_CAP_MB    0x0010u
#define VX_CAP_ETH   0x0020u
#define VX_CAP_AIO   0x0100u
#define VX_CAP_DIO   0x0200u
#define VX_CAP_VIRT  0x4000u
#define VX_CAP_RMT   0x8000u

typedef struct VXChannelInfo {
  char name[64];           /*   0 channel name, NUL-terminated */
  uint8_t serial[16];      /*  64 device serial number, text, NUL-padded */
  uint8_t unique_id[12];   /*  80 device unique id, 12 characters (not NUL-terminated) */
  uint8_t firmware[4];     /*  92 major, minor, patch, build */
  uint16_t usb_vid;        /*  96 */
  uint16_t usb_pid;        /*  98 */
  uint16_t port;           /* 100 port number on its device (0-based) */
  uint16_t capability;     /* 102 VX_CAP_* bits */
  uint8_t generation;      /* 104 hardware generation, major (the "version field"; 3 = generation 3) */
  uint8_t generation_minor;/* 105 hardware generation, minor (5 for generation 2.5) */
  uint8_t bus;             /* 106 number of the bus the port is wired to (informational) */
  uint8_t reserved;        /* 107 */
} VXChannelInfo;

VXAPI_STATIC_ASSERT(sizeof(VXChannelInfo) == 108, "VXChannelInfo is 108 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, serial) == 64, "serial at 64");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, unique_id) == 80, "unique id at 80");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, firmware) == 92, "firmware at 92");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, usb_vid) == 96, "vid at 96");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, usb_pid) == 98, "pid at 98");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, port) == 100, "port at 100");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, capability) == 102, "capability at 102");
VXAPI_STATIC_ASSERT(offsetof(VXChannelInfo, generation) == 104, "generation at 104");

/* ------------------------------------------------------------------------
 * Bitrate record, 12 bytes
 * --------------------------------------------------------------------- */

typedef struct VXBitrate {
  uint16_t nominal_kbps;   /* 0 CAN: arbitration bitrate in kbit/s (1..65535).
                                LIN: the bitrate in bit/s (1000..20000), 0 = automatic (slave only) */
  uint16_t data_kbps;      /* 2 CAN FD data-phase bitrate in kbit/s; 0 = same as nominal */
  uint8_t nominal_sample;  /* 4 nominal sample point in percent (0 = 75) */
  uint8_t data_sample;     /* 5 data sample point in percent (0 = 75) */
  uint8_t reserved[6];     /* 6 zero */
} VXBitrate;

VXAPI_STATIC_ASSERT(sizeof(VXBitrate) == 12, "VXBitrate is 12 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXBitrate, data_kbps) == 2, "data bitrate at 2");
VXAPI_STATIC_ASSERT(offsetof(VXBitrate, nominal_sample) == 4, "nominal sample point at 4");

/* ------------------------------------------------------------------------
 * Open modes
 * --------------------------------------------------------------------- */

/* CAN channels (ports with VX_CAP_CAN). */
#define VX_CAN_MODE_NORMAL      0u /* on the bus; CAN FD enabled when the port has VX_CAP_CANFD */
#define VX_CAN_MODE_CLASSIC     1u /* on the bus, classic CAN only: FD frames are refused and not received */
#define VX_CAN_MODE_LISTEN_ONLY 2u /* receives everything, never transmits (writes give VX_ERR_INVALID_OPERATION) */
#define VX_CAN_MODE_LOOPBACK    3u /* internal loopback: own frames come back as TX confirmation only; nothing reaches
                                      the bus and bus traffic is not received */

/* LIN channels (ports with VX_CAP_LIN). */
#define VX_LIN_MODE_OFF         0u /* passive: neither sends nor receives */
#define VX_LIN_MODE_SLAVE       1u /* answers headers from its response table; receives bus traffic */
#define VX_LIN_MODE_LOOPBACK    2u /* internal loopback: master and slave inside the channel, nothing reaches the bus */
#define VX_LIN_MODE_LISTEN_ONLY 3u /* receives every frame on the bus, never transmits */
#define VX_LIN_MODE_MASTER      8u /* sends headers; receives every completed frame */

/* Resistance argument of VX_OpenEx: CAN termination or LIN pull-up, in ohm. */
#define VX_TERMINATION_DEFAULT  0u     /* CAN 120 ohm; LIN 1000 ohm for a master, off otherwise */
#define VX_TERMINATION_OFF      65535u

/* VX_OpenEx flags. */
#define VX_OPEN_LIN             0x0001u /* open a port that has both CAN and LIN capability as LIN */
#define VX_OPEN_NO_TX_CONFIRM   0x0002u /* do not queue TX confirmations for own frames */

/* ------------------------------------------------------------------------
 * Message record (received and written frames), 96 bytes
 * --------------------------------------------------------------------- */

/* Header word (16 bits at offset 0). */
#define VX_MSG_TYPE_MASK    0x0007u
#define VX_MSG_TYPE_LIN     1u
#define VX_MSG_TYPE_CAN     2u      /* CAN and CAN FD */
#define VX_MSG_TX           0x0008u /* the channel's own transmission (TX confirmation) */
#define VX_MSG_MARKER       0xFFE0u /* set on every record the library produces */
#define VX_MSG_HEADER_CAN   (VX_MSG_MARKER | VX_MSG_TYPE_CAN)  /* 0xFFE2 */
#define VX_MSG_HEADER_LIN   (VX_MSG_MARKER | VX_MSG_TYPE_LIN)  /* 0xFFE1 */
#define VX_MSG_PAYLOAD_LEN  0x0048u /* payload bytes after the first 8 (identifier .. data) */
#define VX_MSG_HEADER_WORD_CAN 0x0048FFE2u /* header and length as one 32-bit word */
#define VX_MSG_HEADER_WORD_LIN 0x0048FFE1u

/* Identifier word: bits 0-10 the 11-bit identifier; for an extended frame
 * bits 0-10 hold identifier bits 18-28 and bits 11-28 identifier bits 0-17. */
#define VX_ID_STD_MASK      0x000007FFu
#define VX_ID_EXT_SHIFT     11
#define VX_ID_EXT_MASK      0x0003FFFFu

/* Control byte (offset 12), CAN. */
#define VX_CTRL_DLC_MASK    0x0Fu
#define VX_CTRL_IDE         0x10u /* extended 29-bit identifier */
#define VX_CTRL_RTR         0x20u /* remote frame */
#define VX_CTRL_BRS         0x40u /* bit-rate switch */
#define VX_CTRL_EDL         0x80u /* CAN FD frame */
/* Flags byte (offset 13), CAN. */
#define VX_MSGF_ESI         0x01u /* error state indicator */
#define VX_MSGF_ROUTED      0x40u /* the frame was forwarded by a device route */
#define VX_MSGF_TASK        0x80u /* the frame was sent by a device TX task */

typedef struct VXMessage {
  uint16_t header;        /*  0 VX_MSG_MARKER | type | VX_MSG_TX */
  uint16_t length;        /*  2 VX_MSG_PAYLOAD_LEN */
  uint32_t timestamp;     /*  4 device clock, microseconds, wraps at 2^32 */
  uint32_t id;            /*  8 CAN: identifier word; LIN: frame identifier in bits 0-5 */
  uint8_t control;        /* 12 CAN: DLC code | VX_CTRL_*; LIN: as VXLinMessage.control */
  uint8_t flags;          /* 13 CAN: VX_MSGF_*; LIN: as VXLinMessage.flags */
  uint8_t lin_status;     /* 14 LIN: VX_LIN_STATUS_* (0 for CAN) */
  uint8_t lin_checksum;   /* 15 LIN: checksum byte as seen on the bus */
  uint8_t data[64];       /* 16 payload; CAN: DLC code bytes, LIN: up to 8 */
  uint16_t port;          /* 80 port on which the record was received or sent */
  uint16_t reserved0;     /* 82 */
  uint32_t reserved1;     /* 84 */
  uint64_t ptp_ns;        /* 88 absolute time of the frame, ns since 1970 UTC (VX_GetDataPtpTimestamp) */
} VXMessage;

VXAPI_STATIC_ASSERT(sizeof(VXMessage) == 96, "VXMessage is 96 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, length) == 2, "length at 2");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, timestamp) == 4, "timestamp at 4");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, id) == 8, "identifier at 8");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, control) == 12, "control at 12");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, lin_status) == 14, "LIN status at 14");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, lin_checksum) == 15, "LIN checksum at 15");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, data) == 16, "data at 16");
VXAPI_STATIC_ASSERT(offsetof(VXMessage, ptp_ns) == 88, "PTP time at 88");

/* ------------------------------------------------------------------------
 * LIN message, 16 bytes. A received LIN record (VXMessage of type LIN)
 * carries exactly this layout from its offset 8 on.
 * --------------------------------------------------------------------- */

#define VX_LIN_CTRL_LEN_MASK      0x0Fu /* data length 0..8 */
#define VX_LIN_CTRL_MASTER_DATA   0x10u /* the master supplies the data (master-write / response frame) */
#define VX_LIN_CTRL_ENHANCED      0x80u /* enhanced checksum (protected identifier included) */
#define VX_LIN_FLAG_OWN_CHECKSUM  0x01u /* flags: send the checksum byte as given */
#define VX_LIN_TX_SYNC_BREAK      0x80u /* status on transmit: header only (sync-break operation) */

/* Status byte of a received LIN frame. Bit 0 carries no error. */
#define VX_LIN_STATUS_CHECKSUM    0x02u /* checksum did not match the receiver's model */
#define VX_LIN_STATUS_PARITY      0x04u /* protected identifier parity error */
#define VX_LIN_STATUS_FRAMING     0x08u /* framing error */
#define VX_LIN_STATUS_BIT         0x10u /* bit error (several responders) */
#define VX_LIN_STATUS_SYNC        0x20u /* sync field error (bitrate mismatch) */
#define VX_LIN_STATUS_NO_RESPONSE 0x40u /* header without slave response */
#define VX_LIN_STATUS_HEADER_ONLY 0x80u /* header-only completion (sync-break) */
#define VX_LIN_STATUS_ERROR_MASK  0x7Eu

typedef struct VXLinMessage {
  uint8_t id;           /*  0 frame identifier 0x00..0x3F */
  uint8_t reserved[3];  /*  1 zero */
  uint8_t control;      /*  4 length | VX_LIN_CTRL_* */
  uint8_t flags;        /*  5 VX_LIN_FLAG_* */
  uint8_t status;       /*  6 transmit: VX_LIN_TX_SYNC_BREAK; receive: VX_LIN_STATUS_* */
  uint8_t checksum;     /*  7 */
  uint8_t data[8];      /*  8 */
} VXLinMessage;

VXAPI_STATIC_ASSERT(sizeof(VXLinMessage) == 16, "VXLinMessage is 16 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXLinMessage, control) == 4, "LIN control at 4");
VXAPI_STATIC_ASSERT(offsetof(VXLinMessage, status) == 6, "LIN status at 6");
VXAPI_STATIC_ASSERT(offsetof(VXLinMessage, data) == 8, "LIN data at 8");

/* LIN protocol record for VX_SetLinProtocol, 16 bytes. */
#define VX_LIN_CHECKSUM_CLASSIC  1u
#define VX_LIN_CHECKSUM_ENHANCED 2u

typedef struct VXLinProtocol {
  uint8_t version;        /* 0x13, 0x20, 0x21 or 0x22 */
  uint8_t checksum_type;  /* VX_LIN_CHECKSUM_*: the model this channel expects on received frames
                             (identifiers 0x3C/0x3D always use classic) */
  uint8_t reserved[14];
} VXLinProtocol;

VXAPI_STATIC_ASSERT(sizeof(VXLinProtocol) == 16, "VXLinProtocol is 16 bytes");

/* ------------------------------------------------------------------------
 * TX task table entry, 128 bytes (64 per port)
 *
 * A port's task table is device state: it keeps running after the channel
 * that set it is closed and after that process exits, until it is replaced,
 * the device is unplugged or the device service stops.
 * --------------------------------------------------------------------- */

#define VX_TXTASK_CAPACITY  64u

/* type (offset 0); any other value marks a free entry */
#define VX_TXTASK_FREE        0u
#define VX_TXTASK_FIXED       1u /* the frame as given */
#define VX_TXTASK_INCDATA     2u /* a data bit field counts from min to max by step */
#define VX_TXTASK_INCID       3u /* the identifier counts from min to max by step */
#define VX_TXTASK_RANDOMDATA  4u /* a data bit field takes random values in [min, max] */
#define VX_TXTASK_RANDOMID    5u /* the identifier takes random values in [min, max] */

/* kind (offset 1) */
#define VX_TXTASK_KIND_CAN          0u /* CAN / CAN FD frame (CAN ports) */
#define VX_TXTASK_KIND_LIN_RESPONSE 1u /* LIN slave response for lin_id (LIN ports, see VXLinResponseTask) */
#define VX_TXTASK_KIND_LIN_HEADER   2u /* LIN header sent by a master port every cycle (schedules) */

/* flags (offset 2), kind CAN: the frame flags */
#define VX_FRAME_IDE  0x01u /* extended identifier */
#define VX_FRAME_RTR  0x02u /* remote frame */
#define VX_FRAME_BRS  0x04u /* bit-rate switch */
#define VX_FRAME_FDF  0x08u /* CAN FD frame */
#define VX_FRAME_ESI  0x10u /* error state indicator */
/* flags, kind LIN_RESPONSE and LIN_HEADER */
#define VX_LINTASK_ACTIVE        0x01u /* response: the entry answers headers */
#define VX_LINTASK_ENHANCED      0x08u /* enhanced checksum */
#define VX_LINTASK_OWN_CHECKSUM  0x10u /* response: send the stored checksum as given */
#define VX_LINTASK_MASTER_WRITE  0x20u /* header: the master supplies data/length (master-write) */
#define VX_LINTASK_SYNC_BREAK    0x40u /* header: header-only sync-break operation */

typedef struct VXTxTask {
  uint8_t type;           /*   0 VX_TXTASK_* (1..5 = in use) */
  uint8_t kind;           /*   1 VX_TXTASK_KIND_* */
  uint8_t flags;          /*   2 VX_FRAME_* or VX_LINTASK_* */
  uint8_t length;         /*   3 payload bytes: CAN 0..8, CAN FD 0..64 (a length code's byte count), LIN 0..8 */
  uint16_t hold;          /*   4 non-zero: the entry is kept but does not run */
  uint16_t user;          /*   6 caller value, stored as given */
  uint16_t repeat;        /*   8 LIN response: kept as given (responses answer every header) */
  uint8_t lin_id;         /*  10 LIN frame identifier 0x00..0x3F */
  uint8_t lin_checksum;   /*  11 LIN stored checksum (VX_LINTASK_OWN_CHECKSUM) */
  uint32_t id;            /*  12 CAN identifier word (VXMessage.id layout; VX_FRAME_IDE selects 29 bits) */
  uint16_t delay;         /*  16 ms from the table's start to the first transmission */
  uint16_t reserved0;     /*  18 */
  uint32_t cycle;         /*  20 period in ms; 0 only with rounds 1 (one-shot) or for LIN responses */
  uint32_t rounds;        /*  24 number of transmissions, 0 = without end */
  uint16_t inc_startbit;  /*  28 INCDATA/RANDOMDATA: first bit of the field (bit n = data[n/8] bit n%8) */
  uint16_t inc_nbits;     /*  30 field width 1..32 (0 = 32); little-endian byte order */
  uint32_t inc_step;      /*  32 INCDATA/INCID: added per transmission (0 = 1) */
  uint32_t inc_min;       /*  36 lowest value */
  uint32_t inc_max;       /*  40 highest value (0 = the field's or identifier's maximum) */
  uint8_t reserved1[20];  /*  44 zero */
  uint8_t data[64];       /*  64 payload */
} VXTxTask;

VXAPI_STATIC_ASSERT(sizeof(VXTxTask) == 128, "VXTxTask is 128 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, hold) == 4, "hold at 4");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, lin_id) == 10, "LIN id at 10");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, id) == 12, "identifier at 12");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, delay) == 16, "delay at 16");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, cycle) == 20, "cycle at 20");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, rounds) == 24, "rounds at 24");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, inc_startbit) == 28, "pattern at 28");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, inc_max) == 40, "pattern max at 40");
VXAPI_STATIC_ASSERT(offsetof(VXTxTask, data) == 64, "data at 64");

/* LIN slave-response view of the same 128-byte table entry. */
typedef struct VXLinResponseTask {
  uint8_t enabled;        /*   0 1 = in use (same byte as VXTxTask.type) */
  uint8_t kind;           /*   1 VX_TXTASK_KIND_LIN_RESPONSE */
  uint8_t flags;          /*   2 VX_LINTASK_ACTIVE | VX_LINTASK_ENHANCED | VX_LINTASK_OWN_CHECKSUM */
  uint8_t length;         /*   3 data length 0..8 (7 bits) */
  uint16_t hold;          /*   4 0; non-zero skips the entry */
  uint16_t user;          /*   6 caller value */
  uint16_t repeat;        /*   8 1 */
  uint8_t id;             /*  10 frame identifier */
  uint8_t checksum;       /*  11 checksum over the data */
  uint8_t reserved[52];   /*  12 zero */
  uint8_t data[64];       /*  64 response data (8 bytes used) */
} VXLinResponseTask;

VXAPI_STATIC_ASSERT(sizeof(VXLinResponseTask) == 128, "VXLinResponseTask is 128 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, hold) == 4, "hold at 4");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, user) == 6, "caller value at 6");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, repeat) == 8, "repeat at 8");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, id) == 10, "identifier at 10");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, checksum) == 11, "checksum at 11");
VXAPI_STATIC_ASSERT(offsetof(VXLinResponseTask, data) == 64, "data at 64");

/* ------------------------------------------------------------------------
 * Route record, 16 bytes (64 per source port)
 * --------------------------------------------------------------------- */

#define VX_ROUTE_CAPACITY   64u
#define VX_ROUTE_FREE       0u
#define VX_ROUTE_UNICAST    1u /* target = destination port */
#define VX_ROUTE_BROADCAST  2u /* target = destination port mask (bit n = port n) */

typedef struct VXRoute {
  uint8_t type;           /*  0 VX_ROUTE_* */
  uint8_t src_port;       /*  1 source port (the port of the channel the table is set on) */
  uint8_t target;         /*  2 destination port or port mask */
  uint8_t reserved[3];    /*  3 zero */
  uint8_t flags_mask;     /*  6 VX_FRAME_* bits compared; 0 = any frame */
  uint8_t flags_value;    /*  7 */
  uint32_t id_mask;       /*  8 identifier bits compared (plain 11/29-bit identifier); 0 = any */
  uint32_t id_value;      /* 12 */
} VXRoute;

VXAPI_STATIC_ASSERT(sizeof(VXRoute) == 16, "VXRoute is 16 bytes");
VXAPI_STATIC_ASSERT(offsetof(VXRoute, flags_mask) == 6, "flags mask at 6");
VXAPI_STATIC_ASSERT(offsetof(VXRoute, id_mask) == 8, "identifier mask at 8");
VXAPI_STATIC_ASSERT(offsetof(VXRoute, id_value) == 12, "identifier value at 12");

/* ------------------------------------------------------------------------
 * Receive filter, seven 32-bit fields (32 per channel)
 *
 * A CAN frame matches an entry when ((id ^ id_value) & id_mask) == 0, the
 * identifier lies in [range_low, range_high] (range ignored while range_high
 * is 0), and ((frame flags ^ flags_value) & flags_mask) == 0; the identifier
 * is the plain 11/29-bit identifier, the flags are VX_FRAME_* bits. A channel
 * without accept entries receives every frame that no reject entry matches;
 * with accept entries a frame must match one of them and no reject entry.
 * Filters apply to received CAN frames only (not to TX confirmations or LIN).
 * --------------------------------------------------------------------- */

#define VX_RXFILTER_CAPACITY 32u
#define VX_RXFILTER_UNUSED   0u
#define VX_RXFILTER_ACCEPT   1u
#define VX_RXFILTER_REJECT   2u

typedef struct VXRxFilter {
  uint32_t mode;          /*  0 VX_RXFILTER_* */
  uint32_t id_mask;       /*  4 */
  uint32_t id_value;      /*  8 */
  uint32_t range_low;     /* 12 */
  uint32_t range_high;    /* 16 */
  uint32_t flags_mask;    /* 20 */
  uint32_t flags_value;   /* 24 */
} VXRxFilter;

VXAPI_STATIC_ASSERT(sizeof(VXRxFilter) == 28, "VXRxFilter is seven 32-bit fields");

/* ------------------------------------------------------------------------
 * Channel configuration and CAN state
 * --------------------------------------------------------------------- */

#define VX_BUS_CAN 1u
#define VX_BUS_LIN 2u

typedef struct VXChannelConfig {
  uint32_t bus;           /*  0 VX_BUS_* */
  uint32_t mode;          /*  4 VX_CAN_MODE_* or VX_LIN_MODE_* */
  uint32_t resistance;    /*  8 CAN termination / LIN pull-up in ohm, VX_TERMINATION_OFF = off */
  VXBitrate bitrate;      /* 12 */
  uint8_t fd_enabled;     /* 24 CAN: 1 when CAN FD frames are accepted */
  uint8_t lin_version;    /* 25 */
  uint8_t lin_checksum;   /* 26 VX_LIN_CHECKSUM_* */
  uint8_t lin_power;      /* 27 LIN 12 V output 0/1 */
  uint32_t rx_queue_size; /* 28 receive queue capacity in records */
} VXChannelConfig;

VXAPI_STATIC_ASSERT(sizeof(VXChannelConfig) == 32, "VXChannelConfig is 32 bytes");

typedef struct VXCanStatus {
  uint32_t state;         /*  0 0, VX_ERR_BUS_OFF, VX_ERR_BUS_PASSIVE or VX_ERR_BUS_HEAVY_ERROR */
  uint8_t tx_errors;      /*  4 transmit error counter */
  uint8_t rx_errors;      /*  5 receive error counter */
  uint16_t reserved;      /*  6 */
  uint32_t busoff_count;  /*  8 bus-off events since the port was plugged in */
  uint32_t reserved2;     /* 12 */
} VXCanStatus;

VXAPI_STATIC_ASSERT(sizeof(VXCanStatus) == 16, "VXCanStatus is 16 bytes");

/* ------------------------------------------------------------------------
 * Device statistics (VX_Control with VX_CONTROL_STATISTIC)
 * --------------------------------------------------------------------- */

#define VX_CONTROL_STATISTIC  0xF4u

/* group 0: device properties and limits */
#define VX_STAT_GROUP_DEVICE      0u
#define VX_STAT_PORT_COUNT        64u /* ports on the channel's device */
#define VX_STAT_RXFILTER_COUNT    65u /* receive filter entries per channel (32) */
#define VX_STAT_TXTASK_CAPACITY   66u /* TX task entries per port (64) */
#define VX_STAT_RX_QUEUE_SIZE     67u /* this channel's receive queue capacity, records */
#define VX_STAT_LIN_RESPONSES     68u /* LIN response entries per port (64) */
#define VX_STAT_MAX_DATA_LENGTH   69u /* 64 on CAN FD channels, 8 otherwise */
#define VX_STAT_ROUTE_CAPACITY    70u /* route entries per port (64) */
#define VX_STAT_GENERATION        71u /* hardware generation times 10 (30 = generation 3) */
/* group 1: this channel's traffic counters (since open) */
#define VX_STAT_GROUP_CHANNEL     1u
#define VX_STAT_RX_FRAMES         0u /* records queued for the channel (received and TX confirmations) */
#define VX_STAT_TX_FRAMES         1u /* frames the channel wrote */
#define VX_STAT_RX_DROPPED        2u /* records lost to a full receive queue */
#define VX_STAT_RX_PENDING        3u /* records waiting in the receive queue */
#define VX_STAT_TX_ERRORS         4u /* writes refused (bus off, unplugged, ...) */
#define VX_STAT_FILTERED          5u /* frames rejected by the receive filters */
/* group 2: the channel's port (all users of the port together) */
#define VX_STAT_GROUP_PORT        2u
#define VX_STAT_PORT_TX_FRAMES    0u /* frames the port put on its bus */
#define VX_STAT_PORT_RX_FRAMES    1u /* frames the port saw from other nodes */
#define VX_STAT_PORT_TASK_FRAMES  2u /* frames sent by the port's TX tasks */
#define VX_STAT_PORT_ROUTED       3u /* frames the port forwarded through routes */
#define VX_STAT_PORT_BUSOFF_COUNT 4u
#define VX_STAT_PORT_OPEN_COUNT   5u /* channels currently open on the port */

/* ------------------------------------------------------------------------
 * Functions
 * --------------------------------------------------------------------- */

/* Initialises the library for this process. May be called more than once;
 * each call needs a matching VX_UnInit. Does not contact the device service
 * yet: that happens on the first call that needs hardware (VX_Enumerate,
 * VX_OpenEx), which starts the service when none runs.
 * Returns VX_OK. */
VXAPI_EXPORT VXStatus VX_Init(void);

/* Undoes one VX_Init; the last one closes every channel this process still
 * has open and disconnects from the service. Device state (TX tasks,
 * routes, LIN responses) stays on the device. */
VXAPI_EXPORT VXStatus VX_UnInit(void);

/* Lists the channels of all connected devices, in device order, ports
 * ascending. `count` holds the capacity of `entries` on input and the number
 * of entries written on output. With `entries` NULL only the total number of
 * channels is stored. More channels than capacity: the first `*count` are
 * written and VX_OK is returned. VX_ERR_INVALID_PARAM_VALUE when `count` is
 * NULL; VX_ERR_NO_DRIVER when the device service cannot be reached. */
VXAPI_EXPORT VXStatus VX_Enumerate(VXChannelInfo* entries, uint32_t* count);

/* Opens the channel named by `info` (matched by serial number and port; the
 * other fields are not consulted, so a stored copy works). Several processes,
 * and several handles in one process, may open the same port: each handle
 * has its own receive queue and gets its own copy of the traffic.
 *   mode        VX_CAN_MODE_* for CAN ports, VX_LIN_MODE_* for LIN ports
 *   resistance  CAN termination / LIN pull-up in ohm (VX_TERMINATION_*)
 *   bitrate     required; see VXBitrate (CAN nominal 1..65535 kbit/s,
 *               LIN 1000..20000 bit/s or 0 = automatic in slave mode)
 *   rx_queue    receive queue capacity in records (0 = 16384; at most 1048576)
 *   flags       VX_OPEN_*
 * The channel is on the bus when the call returns. Opening initialises the
 * port's controller, which all channels on the port share: its bitrate and
 * resistor become the ones given here, and a bus-off state is cleared.
 * Errors:
 * VX_ERR_INVALID_PARAM_VALUE (null pointer, bad mode/bitrate/queue size),
 * VX_ERR_INVALID_HARDWARE (no such device/port, or unplugged),
 * VX_ERR_OUT_OF_RESOURCE (too many open channels), VX_ERR_NO_DRIVER. */
VXAPI_EXPORT VXStatus VX_OpenEx(VXHandle* handle, const VXChannelInfo* info, uint32_t mode,
                                uint32_t resistance, const VXBitrate* bitrate,
                                uint32_t rx_queue, uint32_t flags);

/* Closes a channel: its queue and notification descriptor go away. Port
 * state (TX tasks, routes, LIN responses) is kept. VX_ERR_INVALID_CLIENT
 * for an unknown or already closed handle. */
VXAPI_EXPORT VXStatus VX_Close(VXHandle handle);

/* Confirms that the channel is on the bus: VX_OK for an open channel,
 * VX_ERR_INVALID_HARDWARE after an unplug. Channels are active from
 * VX_OpenEx on and TX tasks start when written, so calling it after
 * VX_SetTxTasks (as callers used to other hardware do) is harmless. */
VXAPI_EXPORT VXStatus VX_Activate(VXHandle handle);

/* Takes the oldest record from the channel's receive queue. With
 * `timeout_ms` 0 the call does not wait; otherwise it waits up to that long
 * for a record. `pending` (may be NULL) receives the number of records still
 * queued after this one. Returns VX_OK with a record, VX_ERR_QUEUE_EMPTY
 * when none arrived, VX_ERR_QUEUE_OVERRUN once after records were lost to a
 * full queue (no record is taken by that call; the next call continues with
 * the records that were kept), VX_ERR_INVALID_HARDWARE after an unplug.
 * Own transmissions come back as records with VX_MSG_TX set (TX
 * confirmation) unless the channel was opened with VX_OPEN_NO_TX_CONFIRM;
 * frames other applications send on the same port, and frames of the port's
 * TX tasks, also carry VX_MSG_TX. VX_ERR_NO_DRIVER once the device service
 * has stopped (the channel must be opened again). */
VXAPI_EXPORT VXStatus VX_Read(VXHandle handle, VXMessage* message, uint32_t timeout_ms,
                              uint32_t* pending);

/* Writes one frame given as a message record. The header's type selects the
 * frame kind: VX_MSG_TYPE_CAN (see VX_WriteCanMessage for the fields used)
 * or VX_MSG_TYPE_LIN (the LIN message at offset 8, as VX_WriteLinMessage).
 * The marker bits and the length word are not checked. Waits up to
 * `timeout_ms` for room in the transmit queue (0 = do not wait). On success
 * `timestamp` (may be NULL) receives the device time of the transmission.
 * Errors: VX_ERR_TX_QUEUE_FULL, VX_ERR_BUS_OFF, VX_ERR_INVALID_OPERATION
 * (listen-only, FD frame on a classic channel), VX_ERR_INVALID_PARAM_VALUE
 * (unknown type, identifier or length out of range). */
VXAPI_EXPORT VXStatus VX_Write(VXHandle handle, const VXMessage* message, uint32_t timeout_ms,
                               uint32_t* timestamp);

/* Writes one CAN or CAN FD frame. Uses only `id`, `control`, `flags`
 * (VX_MSGF_ESI) and `data` of the record; header, length and timestamp are
 * ignored. A DLC code above 8 without VX_CTRL_EDL is sent as 8 bytes; with
 * VX_CTRL_EDL codes 9..15 mean 12, 16, 20, 24, 32, 48, 64 bytes. Waits up to
 * one second for room in the transmit queue. Errors as VX_Write. */
VXAPI_EXPORT VXStatus VX_WriteCanMessage(VXHandle handle, const VXMessage* message);

/* LIN write; the effect depends on the channel's mode:
 *   master / loopback  sends the header for message->id. With
 *     VX_LIN_CTRL_MASTER_DATA the master supplies the data (master-write);
 *     with VX_LIN_TX_SYNC_BREAK in `status` only the header is sent
 *     (sync-break); otherwise a slave answers from its response table
 *     (master-read). The completed frame arrives in the receive queue with
 *     VX_MSG_TX set, the data, checksum and a status byte
 *     (VX_LIN_STATUS_NO_RESPONSE when nobody answered, _HEADER_ONLY for a
 *     sync-break without answer).
 *   slave  stores the response for message->id in the port's response table
 *     (data, length, checksum model; VX_LIN_FLAG_OWN_CHECKSUM keeps the given
 *     checksum); a message without VX_LIN_CTRL_MASTER_DATA and length 0
 *     removes the response.
 *   listen-only, off  VX_ERR_INVALID_OPERATION.
 * Note that on a master a message with VX_LIN_CTRL_MASTER_DATA is sent as a
 * master-write frame; responses of a master's own port are set with
 * VX_SetTxTasks (VX_TXTASK_KIND_LIN_RESPONSE entries).
 * `flags` must be 0. `timeout_ms` and `timestamp` as in VX_Write. Errors:
 * VX_ERR_INVALID_PARAM_VALUE (identifier above 0x3F, length above 8),
 * VX_ERR_INVALID_OPERATION (CAN channel or unsuitable mode). */
VXAPI_EXPORT VXStatus VX_WriteLinMessage(VXHandle handle, const VXLinMessage* message,
                                         uint32_t flags, uint32_t timeout_ms,
                                         uint32_t* timestamp);

/* Stores the channel's notification descriptor in `notify` (see
 * VXNotifyHandle). The same descriptor is returned on every call. */
VXAPI_EXPORT VXStatus VX_GetNotification(VXHandle handle, VXNotifyHandle* notify);

/* Waits until one of `count` notification descriptors is signalled or
 * `timeout_ms` passes. Returns at once when a listed channel of this process
 * already holds records. VX_OK when signalled, VX_ERR_QUEUE_EMPTY on
 * timeout, VX_ERR_INVALID_PARAM_VALUE for a null array, count 0 or above 64,
 * or a descriptor that is not open. */
VXAPI_EXPORT VXStatus VX_WaitForNotifications(const VXNotifyHandle* notify, uint32_t count,
                                              uint32_t timeout_ms);

/* As VX_WaitForNotifications; `index` (may be NULL) receives the position
 * in the array of the first signalled descriptor. */
VXAPI_EXPORT VXStatus VX_WaitForNotificationsEx(const VXNotifyHandle* notify, uint32_t count,
                                                uint32_t timeout_ms, uint32_t* index);

/* Discards every queued record and the pending notification. */
VXAPI_EXPORT VXStatus VX_ClearBuffer(VXHandle handle);

/* Replaces the channel's receive filters with `count` entries (0..32;
 * `filters` may be NULL when count is 0, which receives everything).
 * VX_ERR_INVALID_PARAM_VALUE for count above 32 or a mode above 2. */
VXAPI_EXPORT VXStatus VX_SetRxFilters(VXHandle handle, const VXRxFilter* filters, uint32_t count);

/* Device control. With `code` VX_CONTROL_STATISTIC: reads statistic `item`
 * of `group` (VX_STAT_*) as a 32-bit value into `buffer` (size >= 4). For
 * convenience a group-0 statistic may also be named as group = number,
 * item = 0. VX_ERR_INVALID_PARAM_VALUE for an unknown code, group or item,
 * a null buffer or a size below 4. */
VXAPI_EXPORT VXStatus VX_Control(VXHandle handle, uint32_t code, uint16_t group, uint16_t item,
                                 void* buffer, uint32_t size);

/* CAN bus state of the channel's port. The return value is the state itself
 * (VX_OK when error-active, VX_ERR_BUS_OFF, VX_ERR_BUS_PASSIVE) or a call
 * error (VX_ERR_INVALID_CLIENT, VX_ERR_INVALID_OPERATION on LIN channels);
 * `status` (may be NULL) receives state and counters. */
VXAPI_EXPORT VXStatus VX_GetCanStatus(VXHandle handle, VXCanStatus* status);

/* Restarts the port's CAN controller after bus-off. VX_OK when the port is
 * error-active afterwards; VX_ERR_BUS_OFF when the fault persists (the
 * channel then has to be closed and opened again). */
VXAPI_EXPORT VXStatus VX_RecoverBusOff(VXHandle handle);

/* Replaces the port's TX task table: entries 0..count-1 from `tasks`, the
 * rest cleared (count 0 clears the table; `tasks` may then be NULL). Entries
 * whose content did not change keep their running schedule; new or changed
 * entries start after their delay. The whole call fails with
 * VX_ERR_INVALID_PARAM_VALUE, leaving the table unchanged, when count is
 * above 64 or an entry in use is malformed (CAN kinds on a LIN port or the
 * reverse, cycle 0 with rounds other than 1, length or identifier out of
 * range, pattern width above 32). On a LIN port this also clears the
 * responses stored with VX_WriteLinMessage.
 * Kinds: VX_TXTASK_KIND_CAN on CAN ports; on LIN ports
 * VX_TXTASK_KIND_LIN_RESPONSE (answers headers for lin_id, not scheduled)
 * and VX_TXTASK_KIND_LIN_HEADER (the port sends the header of lin_id every
 * cycle as a master: master-read, master-write with VX_LINTASK_MASTER_WRITE,
 * sync-break with VX_LINTASK_SYNC_BREAK; completions arrive like those of
 * VX_WriteLinMessage). Patterns: the first transmission uses the entry's own
 * value clamped into [inc_min, inc_max]; INCDATA/INCID then add inc_step
 * and start again at inc_min after passing inc_max. */
VXAPI_EXPORT VXStatus VX_SetTxTasks(VXHandle handle, const VXTxTask* tasks, uint32_t count);

/* Copies the first `count` entries (1..64) of the port's TX task table. */
VXAPI_EXPORT VXStatus VX_GetTxTasks(VXHandle handle, VXTxTask* tasks, uint32_t count);

/* Replaces the port's route table (as VX_SetTxTasks: 0..64 entries, the
 * rest cleared). Frames the port receives from its bus that match a route
 * are sent again by the destination port(s) of the same device. Errors:
 * VX_ERR_INVALID_PARAM_VALUE for a type above 2, a source port other than
 * the channel's, a unicast target that is no CAN port of the device or the
 * source itself, or a broadcast mask without such a port. */
VXAPI_EXPORT VXStatus VX_SetMsgRoutes(VXHandle handle, const VXRoute* routes, uint32_t count);

/* Copies the first `count` entries (1..64) of the port's route table. */
VXAPI_EXPORT VXStatus VX_GetMsgRoutes(VXHandle handle, VXRoute* routes, uint32_t count);

/* Switches the LIN channel's 12 V output: 0 off, 1 on. */
VXAPI_EXPORT VXStatus VX_SetLinVoltage(VXHandle handle, uint32_t power);

/* Sets LIN version and the checksum model the channel verifies received
 * frames with. VX_ERR_INVALID_PARAM_VALUE for an unknown version or model. */
VXAPI_EXPORT VXStatus VX_SetLinProtocol(VXHandle handle, const VXLinProtocol* protocol);

/* Absolute time of a record produced by this library, in ns since 1970 UTC.
 * VX_ERR_INVALID_DATA when the record carries none. */
VXAPI_EXPORT VXStatus VX_GetDataPtpTimestamp(VXHandle handle, const VXMessage* message,
                                             uint64_t* ns);

/* Aligns the device clocks of the channels' devices to the clock of the
 * first channel's device, so that their 32-bit timestamps compare directly. */
VXAPI_EXPORT VXStatus VX_SyncPtpTimes(const VXHandle* handles, uint32_t count);

/* Change an open CAN channel in place, without closing it. Bitrate and
 * termination belong to the port's controller and so apply to every channel
 * on the port; frames between ports whose nominal bitrates differ are not
 * received. The mode applies to this channel (VX_CAN_MODE_CLASSIC stops FD
 * reception and transmission at once). VX_ERR_INVALID_OPERATION on LIN
 * channels, VX_ERR_INVALID_PARAM_VALUE for values out of range (termination
 * 0 means 120 ohm). */
VXAPI_EXPORT VXStatus VX_SetCanBitrate(VXHandle handle, const VXBitrate* bitrate);
VXAPI_EXPORT VXStatus VX_SetCanMode(VXHandle handle, uint32_t mode);
VXAPI_EXPORT VXStatus VX_SetCanTermination(VXHandle handle, uint32_t ohm);

/* Current configuration of an open channel. */
VXAPI_EXPORT VXStatus VX_GetChannelConfig(VXHandle handle, VXChannelConfig* config);

/* The enumeration entry of an open channel. */
VXAPI_EXPORT VXStatus VX_GetChannelInfo(VXHandle handle, VXChannelInfo* info);

#ifdef __cplusplus
}
#endif

#endif /* VXAPI_H */
