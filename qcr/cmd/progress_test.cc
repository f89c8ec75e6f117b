#include "qcr/cmd/progress.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "testing/fake_clock.h"

namespace qcr {
namespace {

std::string drain(FILE* f) {
  fflush(f);
  std::string out;
  rewind(f);
  for (int c; (c = fgetc(f)) != EOF;) out += static_cast<char>(c);
  rewind(f);
  return out;
}

// Short transfers show nothing; a long one shows its line, refreshed at most
// every refresh interval and always at the end, and ends it with a line end.
TEST(TerminalProgress, ShowsOnlyTransfersThatTakeAWhile) {
  test::FakeClock clock;
  FILE* out = tmpfile();
  ASSERT_NE(out, nullptr);
  TerminalProgress p("fput f", out, clock, 2.0, 0.5);
  const int64_t mib = 1 << 20;
  p.moved(mib, 4 * mib);
  clock.advance(1.0);
  p.moved(4 * mib, 4 * mib);
  p.ended();
  EXPECT_EQ(drain(out), "");

  p.moved(mib, 4 * mib);  // a new transfer starts its own delay
  clock.advance(2.5);
  p.moved(2 * mib, 4 * mib);
  clock.advance(0.1);
  p.moved(3 * mib, 4 * mib);  // too soon after the last line
  p.moved(4 * mib, 4 * mib);  // the end is always shown
  p.ended();
  EXPECT_EQ(drain(out),
            "\rfput f: 2.0 of 4.0 MiB (50%)\rfput f: 4.0 of 4.0 MiB (100%)\n");
  fclose(out);
}

}  // namespace
}  // namespace qcr
