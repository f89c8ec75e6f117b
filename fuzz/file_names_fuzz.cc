// Committed file names as found in the committed directory (a peer chooses the
// repository names in them), the stem escaping, and the file list of a listing
// reply. The first byte picks which. What reads is written again and must read
// back to the same fields.
#include <string>

#include "fuzz/fuzz_support.h"
#include "qcr/data/committed_dir.h"
#include "qcr/data/file_names.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  fuzz::Input in(data, size);
  const uint8_t type = in.byte();
  switch (type % 3) {
    case 0: {
      const std::string fileName = in.restText();
      CommittedFile f;
      if (!parseCommittedName(fileName, &f)) return 0;
      QCR_ASSERT(f.fileName == fileName);
      const std::string again = committedFileName(f.name, f.objId, f.version, f.crc, f.uid);
      CommittedFile g;
      QCR_ASSERT(parseCommittedName(again, &g));
      QCR_ASSERT(g.name == f.name && g.objId == f.objId && g.version == f.version &&
                 g.crc == f.crc && g.uid == f.uid);
      QCR_ASSERT(committedFileName(g.name, g.objId, g.version, g.crc, g.uid) == again);
      break;
    }
    case 1: {
      // A stem reads only when escaping its name gives the stem back, and any
      // name escapes to a stem that reads back to it.
      const std::string text = in.restText();
      std::string name;
      if (repositoryName(text, &name)) QCR_ASSERT(committedStem(name) == text);
      const std::string stem = committedStem(text);
      QCR_ASSERT(stem.find('.') == std::string::npos);
      QCR_ASSERT(repositoryName(stem, &name) && name == text);
      // A name clients may use gives a committed name that reads back to it.
      if (isRepositoryFileName(text)) {
        QCR_ASSERT(stem.find('/') == std::string::npos && stem.size() <= kMaxFileNameStem);
        CommittedFile f;
        QCR_ASSERT(parseCommittedName(committedFileName(text, 16, 1, 7, Uid{1, 2, 3}), &f));
        QCR_ASSERT(f.name == text && isCommittedFileName(f.fileName));
      }
      break;
    }
    case 2: {
      const fuzz::Bytes body = in.rest();
      FileList list;
      if (getFileList(body.data(), body.data() + body.size(), &list) == nullptr) return 0;
      fuzz::checkFreeRoundTrip(list, sizeFileList, putFileList, getFileList);
      break;
    }
  }
  return 0;
}
