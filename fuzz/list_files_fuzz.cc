// The node and disk lists: the text of qcr.nodes and qcr.disks as read from a
// file a peer sent, and the serialised node list of the init message. The first
// byte picks which. A list that reads (or the records kept from a partly
// ill-formed text) is written again and must read back equal; a text that
// passes the check for a committed list must read without a skipped record.
#include <string>

#include "fuzz/fuzz_support.h"
#include "qcr/data/list_files.h"
#include "qcr/data/node_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace qcr;
  fuzz::Input in(data, size);
  const uint8_t type = in.byte();
  switch (type % 3) {
    case 0: {
      // A text that passes the check for a committed list reads whole.
      const std::string text = in.restText();
      NodeList list;
      const int parsed = parseNodeListText(text, &list);
      if (checkNodeListText(text) == 0) QCR_ASSERT(parsed == 0 && !list.empty());
      NodeList back;
      QCR_ASSERT(parseNodeListText(nodeListText(list), &back) == 0);
      QCR_ASSERT(back == list);
      (void)nodeListToString(list);
      break;
    }
    case 1: {
      const std::string text = in.restText();
      DiskList list;
      const int parsed = parseDiskListText(text, &list);
      if (checkDiskListText(text) == 0) QCR_ASSERT(parsed == 0);
      DiskList back;
      QCR_ASSERT(parseDiskListText(diskListText(list), &back) == 0);
      QCR_ASSERT(back == list);
      break;
    }
    case 2: {
      const fuzz::Bytes body = in.rest();
      NodeList list;
      if (getNodeList(body.data(), body.data() + body.size(), &list) == nullptr) return 0;
      fuzz::checkFreeRoundTrip(list, sizeNodeList, putNodeList, getNodeList);
      (void)nodeListToString(list);
      break;
    }
  }
  return 0;
}
