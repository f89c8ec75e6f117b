#include "qcr/client/auth_keys.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "basic/files.h"
#include "basic/log.h"
#include "qcr/coding/result.h"
#include "qcr/comm/key_gen.h"
#include "qcr/comm/msg_types.h"
#include "qcr/comm/request_bodies.h"
#include "qcr/data/file_ops.h"

namespace qcr {

namespace {

constexpr char kClusterName[] = "qcr";

KeyFilePaths localKeyPaths(const Client& client) {
  return keyFilePaths(client.repoSession().paths.base);
}

// The answer to a request sent once: 0 for ok, the refusal of a failed one.
int answerOf(int rc, const Message& reply) {
  if (rc == 0 && reply.type == MSG_TYPE_FAILED) return failedAnswerError(reply);
  if (rc == 0 && reply.type != MSG_TYPE_OK) return E_ILL_FORMED_MSG;
  return rc;
}

// Makes files this client's key files and keys.
int useLocally(Client& client, const KeyFiles& files) {
  std::shared_ptr<const KeyRing> ring;
  int rc = KeyRing::load(files, &ring);
  if (rc == 0) rc = writeKeyFiles(localKeyPaths(client), files);
  if (rc == 0) client.security().useKeys(std::move(ring));
  return rc;
}

// Installs files on every node; the last error, or 0.
int walk(Client& client, const NodeList& nodes, const KeyFiles& files, int* numSuccessP) {
  int last = 0;
  *numSuccessP = 0;
  for (const NodeEntry& node : nodes) {
    const int rc = InstallKeys(client, node.id, files);
    if (rc != 0) {
      fprintf(stderr, "authentication refresh for node %d (%s) failed (err %d)\n", node.id,
              node.addr.c_str(), rc);
      last = rc;
    } else {
      ++*numSuccessP;
    }
  }
  qcrLog(4, "authentication refresh successful for %d of %zu quorum nodes (last error: %d)",
         *numSuccessP, nodes.size(), last);
  return last;
}

KeyFiles filesOf(const KeyRecord& record, const std::string& committedStore,
                 const std::string& newStore) {
  return {formatAuthorizedKeys(record), committedStore, newStore};
}

}  // namespace

int ClientSecurityInit(Client& client) {
  return client.security().startup(true, localKeyPaths(client));
}

int CreateClusterKeys(uint64_t clusterId, KeyFiles* filesP) {
  KeyRecord record;
  record.clusterName = kClusterName;
  record.clusterId = clusterId;
  record.cipherList = kAuthOnlyCipherList;
  std::string store;
  const int rc = createKeyGeneration(1, kClusterName, &record.committed, &store);
  if (rc != 0) return rc;
  *filesP = filesOf(record, store, "");
  return 0;
}

int InstallKeys(Client& client, int nodeId, const KeyFiles& files) {
  std::unique_ptr<ConnImplementation> conn;
  int rc = client.connectServer(nodeId, -1, &conn);
  if (rc != 0) return rc;
  Message reply;
  // A secured node takes keys only from a holder of its keys: the ping, which
  // needs authentication, proves them first.
  if (conn->securityParams().peerKeyGen != -1) {
    rc = conn->send(MSG_TYPE_PING, {});
    if (rc == 0) rc = answerOf(conn->receive(&reply), reply);
  }
  if (rc == 0) rc = conn->send(MSG_TYPE_AUTH, encodeBody(files));
  if (rc == 0) rc = answerOf(conn->receive(&reply), reply);
  if (rc != 0) conn->markBad();
  client.releaseConnection(std::move(conn));
  qcrLog(4, "InstallKeys(node %d) returned %d", nodeId, rc);
  return rc;
}

int AuthInit(Client& client, const NodeList& nodes, int* numSuccessP) {
  *numSuccessP = 0;
  if (!client.keepsFiles()) return EINVAL;
  KeyFiles files;
  int rc = readKeyFiles(localKeyPaths(client), &files);
  if (rc == ENOENT) {
    const uint64_t clusterId = client.expectedClusterId() != 0 ? client.expectedClusterId()
                                                               : client.repoSession().clusterId;
    rc = CreateClusterKeys(clusterId, &files);
  }
  if (rc == 0) rc = useLocally(client, files);
  // This side authenticates from now on, as every later command will.
  const std::string& noauth = client.repoSession().paths.noauthFile;
  if (rc == 0 && fileExists(noauth)) rc = replaceFile(noauth, std::string(4, '\0'), 0644);
  if (rc != 0) return rc;
  client.security().setSecurityOff(0);
  return walk(client, nodes, files, numSuccessP);
}

int AuthRefresh(Client& client, const NodeList& nodes, int* numSuccessP) {
  *numSuccessP = 0;
  KeyFiles files;
  std::shared_ptr<const KeyRing> ring;
  int rc = client.keepsFiles() ? readKeyFiles(localKeyPaths(client), &files) : EINVAL;
  if (rc == 0) rc = KeyRing::load(files, &ring);
  if (rc != 0) return E_NO_SECURITY;
  KeyRecord record = ring->record();
  // Where a change stands: none (start one), new above committed (walk 1 done at
  // least locally), or new below committed (walk 2 done at least locally).
  int phase = 1;
  KeyGeneration oldGen = record.committed;
  KeyGeneration newGen = record.next;
  if (record.next.gen != -1 && record.next.gen < record.committed.gen) {
    phase = 2;
    std::swap(oldGen, newGen);
  }
  const std::string oldStore = ring->store(oldGen.gen);
  std::string newStore = newGen.gen != -1 ? ring->store(newGen.gen) : "";
  if (oldStore.empty()) return E_NO_SECURITY;
  if (newStore.empty()) {
    rc = createKeyGeneration(oldGen.gen + 1, record.clusterName, &newGen, &newStore);
    if (rc != 0) return rc;
  }
  for (; phase <= 3 && rc == 0; ++phase) {
    if (phase > 1) client.clock().sleepUntil(client.clock().now() + kRefreshSettleSeconds);
    record.committed = phase == 1 ? oldGen : newGen;
    record.next = phase == 1 ? newGen : phase == 2 ? oldGen : KeyGeneration{};
    // The stores keep their files until the last walk: readers match them by key.
    const KeyFiles step = phase < 3 ? filesOf(record, oldStore, newStore)
                                    : filesOf(record, newStore, "");
    rc = useLocally(client, step);
    if (rc == 0) rc = walk(client, nodes, step, numSuccessP);
  }
  return rc;
}

}  // namespace qcr
