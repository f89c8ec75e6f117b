// readpaxos and patchpaxos: inspection and repair of a node's local Paxos state.
// Both work on local files only and never contact a server.
#include "qcr/cmd/state_cmds.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "basic/assert.h"
#include "qcr/cmd/handlers.h"

namespace qcr {

namespace {

void appendf(std::string* outP, const char* fmt, ...) __attribute__((format(printf, 2, 3)));
void appendf(std::string* outP, const char* fmt, ...) {
  char line[1024];
  va_list args;
  va_start(args, fmt);
  const int n = vsnprintf(line, sizeof line, fmt, args);
  va_end(args);
  outP->append(line, static_cast<size_t>(std::clamp(n, 0, static_cast<int>(sizeof line) - 1)));
}

// Prints what a step reported, so that the lines of completed steps are out even
// when a later step stops the program.
void flush(std::string* outP) {
  fputs(outP->c_str(), stdout);
  fflush(stdout);
  outP->clear();
}

// A file of the directory takes the place of its list entry; its update id joins
// the applied ones.
void adopt(const CommittedFile& file, CommittedState* stateP) {
  stateP->files[file.objId] = {file.version, file.uid, file.crc};
  if (!stateP->includes(file.uid)) stateP->addUpdate(file.uid);
}

// One directory file against the file list.
void compareOne(const CommittedFile& dirFile, CommittedState* stateP, PatchCounts* countsP,
                std::string* outP) {
  const auto i = &dirFile;
  const auto j = stateP->files.find(i->objId);
  const char* const name = i->fileName.c_str();
  if (j == stateP->files.end()) {
    if (stateP->includes(i->uid)) {
      appendf(outP, "  deleted: %s\n", name);
      ++countsP->deleted;
      return;
    }
    appendf(outP, "  new    : %s\n  *** adding file to committed file list\n", name);
    ++countsP->added;
  } else if (j->second.version == i->version && j->second.uid == i->uid) {
    appendf(outP, "  match file: %s and file list entry: %s\n", name,
            fileRecordToString(j->first, j->second).c_str());
    QCR_ASSERT(i->uid == j->second.uid);
    QCR_ASSERT(i->crc == j->second.crc);
    ++countsP->matching;
    return;
  } else {
    // The report names the list entry as it was before the change.
    const std::string oldUid = uidToString(j->second.uid);
    const int oldVersion = j->second.version;
    if (oldVersion == i->version) {
      appendf(outP, "  different update id: %s\n", name);
      appendf(outP, "  *** resetting update id in file list version %d uid %s\n", oldVersion,
              oldUid.c_str());
      ++countsP->reset;
    } else if (oldVersion > i->version) {
      appendf(outP, "  older:   %s\n", name);
      appendf(outP, "  *** reverting committed file list version %d uid %s\n", oldVersion,
              oldUid.c_str());
      ++countsP->reverted;
    } else {
      appendf(outP, "  newer:   %s\n", name);
      appendf(outP, "  *** updating committed file list version %d uid %s\n", oldVersion,
              oldUid.c_str());
      ++countsP->updated;
    }
  }
  adopt(dirFile, stateP);
}

}  // namespace

PatchCounts patchFileList(std::vector<CommittedFile> dirFiles, CommittedState* stateP,
                          std::string* outP) {
  std::sort(dirFiles.begin(), dirFiles.end(), [](const CommittedFile& a, const CommittedFile& b) {
    return a.objId != b.objId ? a.objId < b.objId : a.version > b.version;
  });
  PatchCounts counts;
  int32_t lastObjId = 0;
  int32_t lastVersion = 0;
  for (auto i = dirFiles.begin(); i != dirFiles.end(); ++i) {
    if (i != dirFiles.begin() && i->objId == lastObjId) {
      QCR_ASSERT(i->version <= lastVersion);
      continue;  // only the newest version of an id counts
    }
    lastObjId = i->objId;
    lastVersion = i->version;
    compareOne(*i, stateP, &counts, outP);
  }
  return counts;
}

int raiseToUpdateHistory(PaxosFileData* dataP, std::string* outP) {
  int32_t& seq = dataP->dblk.seq;
  int32_t maxEpoch = dataP->epoch;
  int32_t maxSeq = seq;
  for (const auto& [key, updateSeq] : dataP->dblk.committed.updates) {
    if (updateSeq > seq)
      appendf(outP, "  update (n%d,e%d):%d has seq no > %d\n", key.first, key.second, updateSeq,
              seq);
    maxEpoch = std::max(maxEpoch, key.second);
    maxSeq = std::max(maxSeq, updateSeq);
  }
  int changes = 0;
  if (maxEpoch > dataP->epoch) {
    appendf(outP, "  *** updating epoch %d -> %d\n", dataP->epoch, maxEpoch);
    dataP->epoch = maxEpoch;
    ++changes;
  }
  if (maxSeq > seq) {
    appendf(outP, "  *** updating sequence no %d -> %d\n", seq, maxSeq);
    seq = maxSeq;
    ++changes;
  }
  return changes;
}

int ReadPaxosCommand(const std::string& localPath) {
  PaxosLocalFile file;
  const int rc = file.loadFromFile(localPath);
  if (rc != 0) {
    fprintf(stderr, "loadFromFile failed with err %d\n", rc);
    return rc;
  }
  fputs(file.dump(localPath).c_str(), stdout);
  return 0;
}

int PatchPaxosCommand(const std::string& inFile, const std::string& committedDir,
                      const std::string& outFile) {
  // The patched copy keeps the cluster id of the file it came from.
  StateFileOwner owner;
  PaxosLocalFile file;
  int rc = file.loadFromFile(inFile, &owner.clusterId);
  if (rc != 0) {
    fprintf(stderr, "loadFromFile(%s) failed with err %d\n", inFile.c_str(), rc);
    return rc;
  }
  CommittedState& state = file.data.dblk.committed;
  std::string out = "Committed state found in ";
  out.append(inFile).append(":\n").append(state.dump());
  flush(&out);

  std::vector<CommittedFile> dirFiles;
  rc = readCommittedDir(committedDir, &dirFiles);
  if (rc != 0) {
    fprintf(stderr, "readCommittedDir(%s) failed with err %d\n", committedDir.c_str(), rc);
    return rc;
  }
  appendf(&out, "\nComparing to content of '%s':\n\n", committedDir.c_str());
  const PatchCounts counts = patchFileList(std::move(dirFiles), &state, &out);
  appendf(&out, "\nFound %d matching, %d deleted, %d added, %d updated, %d reverted, %d reset\n",
          counts.matching, counts.deleted, counts.added, counts.updated, counts.reverted,
          counts.reset);
  out += "\nVerifying update history\n";
  const int changes = counts.changes() + raiseToUpdateHistory(&file.data, &out);
  flush(&out);
  if (changes == 0) return 0;

  printf("\nWriting %d changes to %s\n", changes, outFile.c_str());
  fflush(stdout);
  rc = file.storeToFile(outFile, owner);
  if (rc != 0) fprintf(stderr, "storeToFile(%s) failed with err %d\n", outFile.c_str(), rc);
  return rc;
}

}  // namespace qcr
