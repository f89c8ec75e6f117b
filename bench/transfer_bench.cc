// File transfer throughput over loopback: a 1 GiB file sent with sendFile and
// received with receiveFile through real connections (hello, framing, checksum,
// temporary file and rename), beside what bounds it, measured in the same run:
// raw TCP moving the same bytes between two memory buffers, and writing a new
// 1 GiB file from memory in the same directory (the receiver's unavoidable copy
// into the page cache). Files live in a private temporary directory ($TMPDIR or
// /tmp) that is removed at the end.
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "basic/clock.h"
#include "basic/files.h"
#include "basic/net.h"
#include "basic/tempdir.h"
#include "bench/bench_files.h"
#include "qcr/comm/connect.h"
#include "qcr/transfer/transfer.h"

namespace qcr {
namespace {

constexpr int64_t kFileSize = int64_t{1} << 30;
constexpr int kRounds = 3;
constexpr int kWaitMs = 60000;

double nowSeconds() { return systemClock().now(); }

// Raw TCP: 1 GiB from one buffer to another, 1 MiB per call.
double rawTcpSeconds() {
  int listenSock = -1, port = 0;
  if (listenSocket(ipv4Address(0x7F000001, 0), &listenSock, &port) != 0) return -1;
  const double start = nowSeconds();
  std::thread receiver([listenSock] {
    int sock = -1;
    PeerAddress peer;
    if (acceptSocket(listenSock, kWaitMs, &sock, &peer) != 0) return;
    std::vector<uint8_t> buf(kBenchChunk);
    for (int64_t got = 0; got < kFileSize; got += kBenchChunk) {
      if (fullRecv(sock, buf.data(), kBenchChunk, kWaitMs) != 0) break;
    }
    closeSocket(sock);
  });
  int sock = -1;
  const PeerAddress address = ipv4Address(0x7F000001, port);
  std::vector<uint8_t> buf(kBenchChunk, 0x5A);
  if (openStreamSocket(address, &sock) == 0 && connectSocket(sock, address, kWaitMs) == 0) {
    for (int64_t sent = 0; sent < kFileSize; sent += kBenchChunk) {
      if (fullSend(sock, buf.data(), kBenchChunk, kWaitMs) != 0) break;
    }
  }
  receiver.join();
  const double seconds = nowSeconds() - start;
  closeSocket(sock);
  closeSocket(listenSock);
  return seconds;
}

// The real path: connect with hello, sendFile on one side, receiveFile on the other.
double fileTransferSeconds(const std::string& source, const std::string& target, int* rcP) {
  int listenSock = -1, port = 0;
  if (listenSocket(ipv4Address(0x7F000001, 0), &listenSock, &port) != 0) return -1;
  const double start = nowSeconds();
  int receiveRc = -1;
  std::thread receiver([&] {
    std::unique_ptr<ConnImplementation> conn;
    Hello clientHello;
    if (acceptConnection(listenSock, kWaitMs, Hello{}, &conn, &clientHello) != 0) return;
    ReceiveOptions options;
    options.target = target;
    options.expectedSize = kFileSize;
    uint32_t checksum = 0;
    bool local = false;
    receiveRc = receiveFile(*conn, options, &checksum, &local);
  });
  std::unique_ptr<ConnImplementation> conn;
  bool local = false;
  ConnectParams params;  // unsecured: no authentication exchange
  params.connectTimeoutMs = kWaitMs;
  params.handshakeTimeoutMs = kWaitMs;
  int sendRc = connect(ipv4Address(0x7F000001, port), params, &conn);
  if (sendRc == 0) sendRc = sendFile(*conn, source, kFileSize, &local);
  receiver.join();
  const double seconds = nowSeconds() - start;
  conn.reset();
  closeSocket(listenSock);
  *rcP = sendRc != 0 ? sendRc : receiveRc;
  return seconds;
}

double fileWriteSeconds(const std::string& path) {
  const double start = nowSeconds();
  const int rc = writePatternFile(path, kFileSize);
  const double seconds = nowSeconds() - start;
  (void)removeFile(path);
  return rc == 0 ? seconds : 1e30;
}

int run() {
  std::string dir;
  int rc = makeTempDir("qcr_transfer_bench_", &dir);
  if (rc != 0) return rc;
  const std::string source = dir + "/source";
  rc = writePatternFile(source, kFileSize);
  double bestRaw = 1e30, bestWrite = 1e30, bestFile = 1e30;
  for (int round = 0; rc == 0 && round < kRounds; ++round) {
    bestRaw = std::min(bestRaw, rawTcpSeconds());
    bestWrite = std::min(bestWrite, fileWriteSeconds(dir + "/written"));
    bestFile = std::min(bestFile, fileTransferSeconds(source, dir + "/target", &rc));
    (void)removeFile(dir + "/target");
  }
  (void)removeTree(dir);
  if (rc != 0) {
    printf("transfer failed: %d\n", rc);
    return rc;
  }
  printf("1 GiB over loopback, best of %d:\n", kRounds);
  printf("  raw TCP, memory to memory          %6.2f GB/s\n", gbPerSecond(kFileSize, bestRaw));
  printf("  new file written from memory       %6.2f GB/s\n", gbPerSecond(kFileSize, bestWrite));
  printf("  sendFile -> receiveFile, file/file %6.2f GB/s\n", gbPerSecond(kFileSize, bestFile));
  return 0;
}

}  // namespace
}  // namespace qcr

int main() { return qcr::run() == 0 ? 0 : 1; }
