// The repository requests: one operation per request, each an attempt loop over
// the servers (qcr/client/attempt.h) around one exchange.
//
// Every operation logs its call and its outcome, returns 0 or a result code and
// hands its outputs back through *resultP, which it resets first. Change requests
// send an all-zero uid; the server assigns the real one. Versions are -1 for none
// (no explicit version, no condition). A loop that gave up returns 801 or 823.
//
// Call PaxosInit (qcr/client/client_cache.h) once before the first operation.
#pragma once

#include <cstdint>
#include <string>

#include "qcr/data/committed_state.h"
#include "qcr/data/file_names.h"
#include "qcr/data/paxos_config.h"

namespace qcr {

struct RequestResult {
  int32_t seq = -1;            // committed sequence number of state
  CommittedState state;        // the committed state the server answered with
  FileList files;              // FLIST: the names of the committed files
  int32_t fid = -1;            // FGET: object id of the fetched file
  int64_t fileSize = -1;       // FGET: its byte count
  bool authoritative = false;  // QUERY: the server knows its state is current
};

// The whole committed state (values are looked up by the caller).
[[nodiscard]] int VGET(RequestResult* resultP);
[[nodiscard]] int VPUT(const std::string& name, const std::string& value, int32_t newVersion,
                       int32_t condVersion, RequestResult* resultP);
[[nodiscard]] int VDEL(const std::string& name, int32_t condVersion, RequestResult* resultP);

// Uploads the file at localPath as name. Fails with the file's status error, before
// any server is asked, when its size cannot be read.
[[nodiscard]] int FPUT(const std::string& name, const std::string& localPath, int32_t newVersion,
                       int32_t condVersion, int32_t quorumOption, RequestResult* resultP);
// The committed state and the names of its files.
[[nodiscard]] int FLIST(RequestResult* resultP);
// Fetches name into localPath (replaced only once the whole file arrived intact).
// With condVersion the server answers 806 when its version equals it.
[[nodiscard]] int FGET(const std::string& name, const std::string& localPath, int32_t condVersion,
                       RequestResult* resultP);
[[nodiscard]] int FDEL(const std::string& name, int32_t condVersion, RequestResult* resultP);

// Applies a configuration change computed from configuration version configVersion
// (-1: from any).
[[nodiscard]] int CONFIG(const ConfigChange& change, int32_t configVersion, int32_t quorumOption,
                         RequestResult* resultP);
// The server's state and whether it could prove it current.
[[nodiscard]] int QUERY(RequestResult* resultP);

}  // namespace qcr
