// Bodies of the messages qcrd servers exchange among themselves (see
// docs/qcrd-protocol.md): prepare (pxread), accept (pxwrite), sync (pxrdwr),
// catch-up (pxinit), file transfer (fxfer) and their replies. Laid out with the
// coding primitives; every type has getSize/write/read and works with
// encodeBody/decodeBody of request_bodies.h.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/comm/request_bodies.h"
#include "qcr/data/ballot.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/file_names.h"
#include "qcr/data/update.h"

namespace qcr {

// The outcome an acceptor reports.
enum PeerResult : int32_t {
  kPeerOk = 0,
  kPeerRejected = 1,  // ballot below the promise, or bound to a live leader
  kPeerAhead = 2,     // the receiver has committed more; its state is attached
  kPeerBehind = 3,    // the receiver has committed less; send it the state first
  kPeerStale = 4,     // the message is older than kMaxMessageAgeMs
  kPeerNotReady = 5,  // not initialised
};

// Messages whose sent time lies further back than this are refused.
inline constexpr int64_t kMaxMessageAgeMs = 2000;

// A committed state with the names of its files: what catch-up hands over. It is
// laid out as the flist reply the tool receives, so it is that type: one codec
// for both.
using StateImage = SeqCommitFlistReply;

// The fields every acceptor message starts with.
struct PeerHeader {
  int32_t from = 0;    // node id of the sender
  int64_t sentMs = 0;  // sender's wall clock, ms since the epoch
  int32_t seq = 0;     // sender's committed seq

  bool operator==(const PeerHeader&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// pxread 13: promise ballot for synod seq + 1 and every later one.
struct PrepareMsg {
  PeerHeader hdr;
  Ballot ballot;

  bool operator==(const PrepareMsg&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// pxwrite 14: accept update for synod seq + 1 under ballot.
struct AcceptMsg {
  PeerHeader hdr;
  Ballot ballot;
  ProposedUpdate update;

  bool operator==(const AcceptMsg&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// pxrdwr 15: the sender's committed seq, the ballot under which its last synod
// was decided, and, when hasImage, its whole state. Commit notice, lease renewal
// and state transfer in one.
struct SyncMsg {
  PeerHeader hdr;
  Ballot ballot;
  bool hasImage = false;
  StateImage image;

  bool operator==(const SyncMsg&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// pxinit 12: a server asks the leader to bring it up to date (hdr.seq is its own).
// The reply is an AcceptorReply whose leaseHeld says that the leader holds its
// lease, with the leader's state attached when the asker is behind.
using CatchUpMsg = PeerHeader;

// reply_pxread 56, reply_pxwrite 57, reply_pxrdwr 58: the acceptor's answer. For a
// prepare, bal and inp are what it accepted for the open synod; with kPeerAhead
// (and a catch-up reply to a server behind) its state is attached.
struct AcceptorReply {
  int32_t result = kPeerOk;
  int32_t seq = 0;
  int32_t leaderId = -1;  // the receiver's committed leader
  bool leaseHeld = false;
  Ballot mbal;
  Ballot bal;
  ProposedUpdate inp;
  bool hasImage = false;
  StateImage image;

  bool operator==(const AcceptorReply&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

// fxfer 16. Pull (direction 0): the asker names the version by objId, version and
// uid; the holder answers ok with a FileXferMsg carrying the committed file name
// and size, then the file as fdata messages and one fcrc; or failed with an error.
// Push (direction 1): name and size given, the file follows, the receiver answers
// ok or failed.
struct FileXferMsg {
  int32_t direction = 0;
  std::string fileName;  // committed file name
  int32_t objId = 0;
  int32_t version = 0;
  Uid uid;
  int64_t size = 0;

  bool operator==(const FileXferMsg&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};
inline constexpr int32_t kXferPull = 0;
inline constexpr int32_t kXferPush = 1;

// The body of a failed (-1) reply between servers: one error code.
struct ErrorBody {
  int32_t error = 0;

  bool operator==(const ErrorBody&) const = default;
  int getSize() const;
  uint8_t* write(uint8_t* p) const;
  const uint8_t* read(const uint8_t* p, const uint8_t* end);
};

}  // namespace qcr
