// vyqcr, qcrsh and qcrcp: one program, three names.
#include "basic/crash.h"
#include "qcr/cmd/driver.h"

int main(int argc, char** argv) {
  // A fault anywhere below prints its line and leaves one crash dump.
  qcr::installCrashHandler("vyqcr");
  return qcr::DriverMain(argc, argv);
}
