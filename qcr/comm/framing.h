// The message header: 8 bytes in front of every message body, both directions.
//
//   offset 0, 4 bytes: body length, signed, big-endian, 0..QCR_MAX_BODY_LENGTH
//   offset 4, 2 bytes: message type + kMsgTypeBias, unsigned, big-endian
//   offset 6, 2 bytes: reserved; written as zero, ignored when read
//
// The body follows at once, with no trailer. Both send and receive use only
// these functions to lay out and check a header.
#pragma once

#include <cstdint>

namespace qcr {

inline constexpr int kRpcHeaderSize = 8;
inline constexpr int32_t QCR_MAX_BODY_LENGTH = 8388608;
// Added to the type on the wire so that the negative types fit 16 unsigned bits.
inline constexpr int kMsgTypeBias = 512;

struct RpcHeader {
  int32_t msgLen = 0;
  int msgType = 0;
};

void encodeRpcHdr(const RpcHeader& header, uint8_t* out);
RpcHeader decodeRpcHdr(const uint8_t* in);

// A header is accepted when 0 <= msgLen <= QCR_MAX_BODY_LENGTH (the limit itself
// included) and the type is in the catalogue.
bool rpcHdrAcceptable(const RpcHeader& header);

}  // namespace qcr
