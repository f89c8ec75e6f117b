#include "qcr/transfer/transfer.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <new>

#include "basic/assert.h"
#include "basic/clock.h"
#include "basic/files.h"
#include "basic/log.h"
#include "qcr/comm/msg_types.h"
#include "qcr/coding/result.h"
#include "qcr/coding/coding.h"
#include "qcr/coding/crc.h"
#include "qcr/data/file_ops.h"

namespace qcr {

namespace {

constexpr size_t kChecksumChunkSize = 256 * 1024;

// Fills buf with up to n bytes, fewer only at the end of the file.
int readChunk(File& file, uint8_t* buf, size_t n, size_t* gotP) {
  *gotP = 0;
  while (*gotP < n) {
    size_t got = 0;
    const int rc = file.read(buf + *gotP, n - *gotP, &got);
    if (rc != 0) return rc;
    if (got == 0) break;
    *gotP += got;
  }
  return 0;
}

// Writes n bytes to file, or to standard output when file is null. A write that
// stops short without a system error gives 810.
int writeAll(File* file, const std::string& name, const uint8_t* p, size_t n) {
  size_t done = 0;
  int rc = 0;
  while (rc == 0 && done < n) {
    size_t put = 0;
    if (file != nullptr) {
      rc = file->write(p + done, n - done, &put);
    } else {
      errno = 0;
      put = fwrite(p + done, 1, n - done, stdout);
      rc = put < n - done ? errno : 0;
    }
    done += put;
    if (rc == 0 && put == 0) rc = E_IO;
  }
  if (rc != 0) {
    qcrLog(4, "Writing to %s failed (%zu-%zu, err %d)", name.c_str(), done, n, rc);
  }
  return rc;
}

// Receives the fcrc message that ends every transfer; it must carry the checksum
// computed here. Anything else in its place is a broken stream: more fdata means
// the peer sends more than it announced.
int checkChecksum(Connection& conn, const std::string& name, uint32_t checksum) {
  int msgType = -1;
  std::unique_ptr<uint8_t[]> data;
  int len = 0;
  const int rc = conn.receive(&msgType, &data, &len);
  if (rc != 0) return rc;
  if (msgType != MSG_TYPE_FCRC) {
    const char* what = msgType == MSG_TYPE_FDATA ? "more data than announced" : "a foreign message";
    qcrLog(1, "Transfer of '%s' failed: %s (message %d) where its checksum belongs",
           name.c_str(), what, msgType);
    return E_ILL_FORMED_MSG;
  }
  uint32_t sent = 0;
  if (len != 4 || getU32(data.get(), data.get() + len, &sent) == nullptr) {
    qcrLog(1, "Transfer of '%s' failed: checksum message of %d bytes", name.c_str(), len);
    return E_ILL_FORMED_MSG;
  }
  if (sent != checksum) {
    qcrLog(1, "Transfer of '%s' failed: bad CRC 0x%x (expected 0x%x)", name.c_str(), checksum,
           sent);
    return E_IO;
  }
  qcrLog(4, "RECEIVE: '%s' crc = 0x%x", name.c_str(), checksum);
  return 0;
}

int syncFile(File& file, const std::string& name, bool* localFailureP) {
  const double start = systemClock().wallNow();
  const int rc = file.sync();
  if (rc != 0) {
    qcrLog(4, "Fsync of '%s' failed (%d)", name.c_str(), rc);
    *localFailureP = true;
    return rc;
  }
  // Start minus end, kept so: the note appears only when the wall clock stepped
  // back by five seconds or more during the sync.
  const double elapsed = start - systemClock().wallNow();
  if (elapsed >= 5.0) qcrLog(1, "Synchronize %s took %.1f seconds", name.c_str(), elapsed);
  return 0;
}

// Receives the fdata messages and the fcrc message, writing to file (standard
// output when null).
int receiveContent(Connection& conn, const ReceiveOptions& options, File* file, uint32_t* checksumP,
                   bool* localFailureP) {
  const std::string name = options.target.empty() ? "stdout" : options.target;
  uint32_t crc = 0;
  int64_t received = 0;
  while (received < options.expectedSize) {
    int msgType = -1;
    std::unique_ptr<uint8_t[]> data;
    int len = 0;
    int rc = conn.receive(&msgType, &data, &len);
    if (rc != 0) return rc;
    qcrLog(4, "Received %d bytes (%d)", len, msgType);
    if (msgType != MSG_TYPE_FDATA) {
      qcrLog(1, "Transfer of '%s' failed: message %d after %lld of %lld bytes", name.c_str(),
             msgType, static_cast<long long>(received),
             static_cast<long long>(options.expectedSize));
      return E_ILL_FORMED_MSG;
    }
    if (len > options.expectedSize - received) {
      qcrLog(1, "Transfer of '%s' failed: %d more bytes after %lld of %lld", name.c_str(), len,
             static_cast<long long>(received), static_cast<long long>(options.expectedSize));
      return E_ILL_FORMED_MSG;
    }
    received += len;
    if (options.progress != nullptr) options.progress->moved(received, options.expectedSize);
    rc = writeAll(file, name, data.get(), static_cast<size_t>(len));
    if (rc != 0) {
      *localFailureP = true;
      return rc;
    }
    crc = crcExtend(crc, data.get(), static_cast<size_t>(len));
  }
  *checksumP = cksumFinish(crc, static_cast<uint64_t>(received));
  int rc = checkChecksum(conn, name, *checksumP);
  if (rc == 0 && options.expectedChecksum && *options.expectedChecksum != *checksumP) {
    // The sender's copy is damaged: its fcrc was computed over the damage.
    qcrLog(1, "Transfer of '%s' failed: content has CRC 0x%x where 0x%x is recorded",
           name.c_str(), *checksumP, *options.expectedChecksum);
    rc = E_IO;
  }
  if (rc == 0 && options.sync && file != nullptr) rc = syncFile(*file, name, localFailureP);
  return rc;
}

int moveToFinalName(const std::string& temp, const ReceiveOptions& options, uint32_t checksum,
                    bool* localFailureP) {
  const std::string finalName =
      options.checksumInName ? checksumName(options.target, checksum) : options.target;
  int rc = options.rename == RenameVariant::kReplace ? replaceRename(temp, finalName)
                                                     : keepRename(temp, finalName);
  // A synced file has arrived only once its name has reached the disk as well.
  if (rc == 0 && options.sync) {
    rc = syncDirectory(parentDirectory(finalName));
    if (rc != 0) qcrLog(1, "Syncing the directory of '%s' failed (%d)", finalName.c_str(), rc);
  }
  if (rc != 0) *localFailureP = true;
  return rc;
}

// Sends exactly size bytes of file as fdata messages. A file that ends before
// size or goes on after it (it changed since its size was taken, or it is a device
// or a pipe, whose size says nothing) fails with 22 on this side, before the fcrc,
// so the receiver never stores it.
int sendContent(Connection& conn, File& file, const std::string& path, int64_t size,
                int64_t* sentP, uint32_t* crcP, bool* localFailureP, TransferProgress* progress) {
  if (size < 0) {
    *localFailureP = true;
    return EINVAL;
  }
  std::unique_ptr<uint8_t[]> chunk(new (std::nothrow) uint8_t[kTransferChunkSize]);
  if (!chunk) {
    *localFailureP = true;
    return ENOMEM;
  }
  for (;;) {
    const int64_t left = size - *sentP;
    // One byte more than is left, to see whether the file ends where it should.
    const size_t want =
        left >= kTransferChunkSize ? kTransferChunkSize : static_cast<size_t>(left) + 1;
    size_t got = 0;
    int rc = readChunk(file, chunk.get(), want, &got);
    if (rc != 0) {
      qcrLog(1, "Error occurred reading '%s' (%d)", path.c_str(), rc);
      *localFailureP = true;
      return rc;
    }
    if (got == 0 && left == 0) return 0;
    if (got == 0 || static_cast<int64_t>(got) > left) {
      qcrLog(1, "'%s' does not hold its %lld bytes: %s", path.c_str(),
             static_cast<long long>(size), got == 0 ? "it ends early" : "it goes on");
      *localFailureP = true;
      return EINVAL;
    }
    *crcP = crcExtend(*crcP, chunk.get(), got);
    qcrLog(4, "Sending %zu bytes (%d) (0x%x)", got, MSG_TYPE_FDATA, *crcP);
    rc = conn.send(MSG_TYPE_FDATA, chunk.get(), static_cast<int>(got));
    if (rc != 0) return rc;
    *sentP += static_cast<int64_t>(got);
    if (progress != nullptr) progress->moved(*sentP, size);
  }
}

int sendWhole(Connection& conn, const std::string& path, int64_t fSize, bool* localFailureP,
              std::optional<uint32_t> expectedChecksum, TransferProgress* progress) {
  *localFailureP = false;
  File file;
  int64_t bytesSent = 0;
  uint32_t crc = 0;
  int rc = file.openRead(path);
  if (rc != 0) {
    qcrLog(1, "Open '%s' failed (%d)", path.c_str(), rc);
    *localFailureP = true;
  }
  if (rc == 0) {
    rc = sendContent(conn, file, path, fSize, &bytesSent, &crc, localFailureP, progress);
  }
  uint32_t checksum = 0;
  if (rc == 0) {
    QCR_ASSERT_MSG(bytesSent == fSize, "file size mismatch, sent: %lld size: %lld",
                   static_cast<long long>(bytesSent), static_cast<long long>(fSize));
    checksum = cksumFinish(crc, static_cast<uint64_t>(bytesSent));
    qcrLog(7, "SEND: crc '%s': 0x%x (%lld)", path.c_str(), checksum,
           static_cast<long long>(bytesSent));
    (void)file.close();  // read-only: nothing can be lost
    if (expectedChecksum && *expectedChecksum != checksum) {
      // Damaged since it was checked: the receiver must not get it marked good.
      qcrLog(1, "'%s' has CRC 0x%x where 0x%x is recorded: not sent", path.c_str(), checksum,
             *expectedChecksum);
      *localFailureP = true;
      rc = E_IO;
    }
  }
  if (rc == 0) {
    uint8_t body[4];
    putU32(body, checksum);
    rc = conn.send(MSG_TYPE_FCRC, body, sizeof body);
  }
  if (rc == 0) {
    qcrLog(4, "Transferred '%s' successful (%lld bytes)", path.c_str(),
           static_cast<long long>(bytesSent));
  } else {
    qcrLog(4, "Transferred '%s' failed after %lld bytes, err %d", path.c_str(),
           static_cast<long long>(bytesSent), rc);
  }
  return rc;
}

int receiveWhole(Connection& conn, const ReceiveOptions& options, uint32_t* checksumP,
                 bool* localFailureP) {
  *checksumP = 0;
  *localFailureP = false;
  qcrLog(4, "RECEIVE '%s' size %lld from %s", options.target.c_str(),
         static_cast<long long>(options.expectedSize), addressText(conn.peerAddress()).c_str());
  // The size comes from the peer's announcement: refuse it before creating anything.
  if (options.expectedSize < 0 || options.expectedSize > kMaxTransferSize) {
    qcrLog(1, "Transfer of '%s' refused: announced size %lld", options.target.c_str(),
           static_cast<long long>(options.expectedSize));
    conn.markBad();
    return E_ILL_FORMED_MSG;
  }
  if (options.target.empty()) {
    const int rc = receiveContent(conn, options, nullptr, checksumP, localFailureP);
    fflush(stdout);
    if (rc != 0 && !*localFailureP) conn.markBad();
    return rc;
  }
  const std::string temp = tempFileName(options.target);
  File file;
  int rc = file.openWrite(temp, options.privateFile ? 0660 : 0664);
  if (rc != 0) {
    qcrLog(1, "Open '%s' failed (%d)", temp.c_str(), rc);
    *localFailureP = true;
    return rc;
  }
  rc = receiveContent(conn, options, &file, checksumP, localFailureP);
  // The stream is out of step after any failure on the peer's side.
  if (rc != 0 && !*localFailureP) conn.markBad();
  if (rc == 0) {
    rc = file.close();
    if (rc != 0) *localFailureP = true;
  }
  if (rc == 0) rc = moveToFinalName(temp, options, *checksumP, localFailureP);
  if (rc != 0) (void)removeFile(temp);  // already gone after a partial rename: fine
  return rc;
}

}  // namespace

int sendFile(Connection& conn, const std::string& path, int64_t fSize, bool* localFailureP,
             std::optional<uint32_t> expectedChecksum, TransferProgress* progress) {
  const int rc = sendWhole(conn, path, fSize, localFailureP, expectedChecksum, progress);
  if (progress != nullptr) progress->ended();
  return rc;
}

int receiveFile(Connection& conn, const ReceiveOptions& options, uint32_t* checksumP,
                bool* localFailureP) {
  const int rc = receiveWhole(conn, options, checksumP, localFailureP);
  if (options.progress != nullptr) options.progress->ended();
  return rc;
}

int fileChecksum(const std::string& path, uint32_t* checksumP) {
  File file;
  int rc = file.openRead(path);
  std::unique_ptr<uint8_t[]> chunk(new (std::nothrow) uint8_t[kChecksumChunkSize]);
  if (rc == 0 && !chunk) rc = ENOMEM;
  uint32_t crc = 0;
  uint64_t length = 0;
  for (size_t got = 1; rc == 0 && got > 0;) {
    rc = readChunk(file, chunk.get(), kChecksumChunkSize, &got);
    crc = crcExtend(crc, chunk.get(), got);
    length += got;
  }
  if (rc != 0) {
    qcrLog(1, "Checksum of '%s' failed (%d)", path.c_str(), rc);
    return rc;
  }
  *checksumP = cksumFinish(crc, length);
  return 0;
}

std::string checksumName(const std::string& target, uint32_t checksum) {
  const size_t pos = target.find(".0.");
  QCR_ASSERT(pos != std::string::npos);
  char hex[12];
  snprintf(hex, sizeof hex, "%x", checksum);
  return target.substr(0, pos + 1) + hex + target.substr(pos + 2);
}

int transferFileSize(const std::string& path, int64_t* sizeP) {
  const int rc = fileSize(path, sizeP);
  if (rc != 0) {
    qcrLog(4, "Get status for file '%s' failed (%d)", path.c_str(), rc);
  } else {
    qcrLog(4, "Size of file '%s': %lld bytes", path.c_str(), static_cast<long long>(*sizeP));
  }
  return rc;
}

}  // namespace qcr
