/* One connect, one hello and one vget round trip to a QCR server, and nothing
 * else: the floor under the latency of a whole `vyqcr vget`. Usage: rpc_floor PORT
 * (on 127.0.0.1). Exits 0 when a seq_commit reply arrived. */
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static int moveAll(int fd, void* buf, size_t n, int sending) {
  char* p = buf;
  while (n > 0) {
    ssize_t k = sending ? write(fd, p, n) : read(fd, p, n);
    if (k <= 0) return -1;
    p += k;
    n -= (size_t)k;
  }
  return 0;
}

static uint32_t wordAt(const unsigned char* p) {
  return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in sa = {.sin_family = AF_INET, .sin_port = htons((uint16_t)atoi(argv[1]))};
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  if (connect(fd, (struct sockaddr*)&sa, sizeof sa) != 0) return 1;
  /* The client hello: header, items 7, 9 and 2, no security item. */
  uint32_t hello[34] = {0xF3689038, 0xFFFFFFFF, 0xFFFFFFFF, 1602, 1203, 12, 0, 7, 24, 1,
                        9, 72, 101, 0, 0, 0, 2, 0, 0};
  for (int i = 0; i < 34; ++i) hello[i] = htonl(hello[i]);
  unsigned char buf[4096];
  if (moveAll(fd, hello, sizeof hello, 1) != 0 || moveAll(fd, buf, 20, 0) != 0) return 1;
  for (uint32_t len = wordAt(buf + 12); len != 0; len = wordAt(buf + 4)) {
    if (len < 8 || len > sizeof buf || moveAll(fd, buf, len, 0) != 0) return 1;
  }
  unsigned char request[8] = {0, 0, 0, 0, (5 + 512) >> 8, (5 + 512) & 0xFF, 0, 0};
  if (moveAll(fd, request, sizeof request, 1) != 0 || moveAll(fd, buf, 8, 0) != 0) return 1;
  const int type = (buf[4] << 8 | buf[5]) - 512;
  for (uint32_t left = wordAt(buf); left > 0;) {
    const uint32_t n = left < sizeof buf ? left : (uint32_t)sizeof buf;
    if (moveAll(fd, buf, n, 0) != 0) return 1;
    left -= n;
  }
  close(fd);
  return type == 50 ? 0 : 1;
}
