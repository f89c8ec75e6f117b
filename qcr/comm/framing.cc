#include "qcr/comm/framing.h"

#include <cstring>

#include "qcr/comm/msg_types.h"

namespace qcr {

void encodeRpcHdr(const RpcHeader& header, uint8_t* out) {
  const auto len = static_cast<uint32_t>(header.msgLen);
  const auto type = static_cast<uint16_t>(header.msgType + kMsgTypeBias);
  out[0] = static_cast<uint8_t>(len >> 24);
  out[1] = static_cast<uint8_t>(len >> 16);
  out[2] = static_cast<uint8_t>(len >> 8);
  out[3] = static_cast<uint8_t>(len);
  out[4] = static_cast<uint8_t>(type >> 8);
  out[5] = static_cast<uint8_t>(type);
  out[6] = 0;
  out[7] = 0;
}

RpcHeader decodeRpcHdr(const uint8_t* in) {
  const uint32_t len = uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
  const int type = in[4] << 8 | in[5];
  return RpcHeader{static_cast<int32_t>(len), type - kMsgTypeBias};
}

bool rpcHdrAcceptable(const RpcHeader& header) {
  return header.msgLen >= 0 && header.msgLen <= QCR_MAX_BODY_LENGTH &&
         strcmp(msgName(header.msgType), "unknown") != 0;
}

}  // namespace qcr
