// The committed state and the records around it, as replies and state files carry
// them: the first byte picks the type. A value that reads is written again and
// must read back equal, and its renderings must not fail.
#include "fuzz/fuzz_support.h"
#include "qcr/data/committed_state.h"
#include "qcr/data/dblock.h"
#include "qcr/data/paxos_config.h"
#include "qcr/data/state_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  fuzz::Input in(data, size);
  const uint8_t type = in.byte();
  const fuzz::Bytes body = in.rest();  // exactly sized, for ASan
  const uint8_t* const end = body.data() + body.size();
  switch (type % 4) {
    case 0: {
      CommittedState s;
      if (s.read(body.data(), end) == nullptr) return 0;
      (void)s.toString();
      (void)s.dump();
      (void)s.updatesToString();
      fuzz::checkMemberRoundTrip(s);
      break;
    }
    case 1: {
      PaxosDblockSummary d;
      if (d.read(body.data(), end) == nullptr) return 0;
      fuzz::checkMemberRoundTrip(d);
      break;
    }
    case 2: {
      // Both formats read; the current one writes.
      const int fmtVersion = (type >> 2) & 1;
      PaxosFileData f;
      if (f.read(body.data(), end, fmtVersion) == nullptr) return 0;
      fuzz::checkRoundTrip(f, [](const uint8_t* p, const uint8_t* e, PaxosFileData* out) {
        return out->read(p, e, kPaxosFmtVersion);
      });
      break;
    }
    case 3: {
      ConfigChange c;
      if (c.read(body.data(), end) == nullptr) return 0;
      fuzz::checkMemberRoundTrip(c);
      break;
    }
  }
  return 0;
}
