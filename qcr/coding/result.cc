#include "qcr/coding/result.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string>

namespace qcr {

namespace {

const std::map<int, const char*>& textTable() {
  static const std::map<int, const char*> table = {
      {E_OK, ""},
      {E_MAX_RETRIES, "Maximum number of retries reached"},
      {E_NODE_INIT, "Node initialization failed"},
      {E_DISK_INIT, "Disk initialization failed"},
      {E_NOT_FOUND, "Name not found on get"},
      {E_VERSION_MISMATCH, "Version mismatch on conditional put"},
      {E_VERSION_MATCH, "Version match on conditional get"},
      {E_INVALID_VERSION, "Invalid version on put"},
      {E_NOT_ACTIVE, "The selected QCR server is not active to run a synod"},
      {E_NO_QUORUM, "Not enough QCR quorum nodes available"},
      {E_IO, "Error occurred during QCR IO"},
      {E_NO_DIR, "QCR directory or subdirectory missing"},
      {E_NODES_FILE, "qcr.nodes file missing or empty"},
      {E_NO_FILE, "File does not exist"},
      {E_ALREADY_INIT, "QCR is already initialized"},
      {E_NOT_LEADER, "Local node is no longer leader"},
      {E_SEQ_CHANGED, "Sequence number changed during synod"},
      {E_PR_KEY_SEED, "Setting PR key seed failed"},
      {E_ILL_FORMED_MSG, "Ill-formed RPC message received"},
      {E_NO_LEADER_CONTACT, "Unable to contact current leader"},
      {E_NOTIFY, "Update notification failed"},
      {E_CREATE_DIR, "Creation of QCR directory failed"},
      {E_BEST_GUESS, "Returned QCR state is best guess (not known to be up-to-date)"},
      {E_NO_QUORUM_NODE_REACHED,
       "Unable to reach any quorum node (Check your firewall or network settings)"},
      {E_FILE_EMPTY, "File is empty"},
      {E_TIMEOUT, "Request ran into timeout"},
      {E_MIN_RELEASE, "Min. release level does not support request"},
  };
  return table;
}

// strerror's text for an unknown number lives in a buffer that the next call
// replaces, so each system text is copied once and kept for the whole run.
const char* systemText(int code) {
  static std::mutex mutex;
  static auto* texts = new std::map<int, std::string>;  // never destroyed: used until exit
  std::lock_guard<std::mutex> lock(mutex);
  auto it = texts->find(code);
  if (it == texts->end()) it = texts->emplace(code, strerror(code)).first;
  return it->second.c_str();
}

}  // namespace

const char* errText(int code) {
  const auto& table = textTable();
  auto it = table.find(code);
  return it != table.end() ? it->second : systemText(code);
}

}  // namespace qcr
