#include "qcr/cmd/check_record.h"

#include <gtest/gtest.h>

namespace qcr {
namespace {

TEST(CheckRecord, RendersEachFormAndResetsAfterwards) {
  CheckRecord human(false);
  human.begin(kCheckAuthKeys);
  EXPECT_EQ(human.render(), " Check QCR authorized key file succeed");
  human.begin(kCheckTiebreakers);
  human.recordSuccess("", "No tiebreaker disks configured");
  EXPECT_EQ(human.render(), " Check QCR tiebreaker disks succeed (No tiebreaker disks configured)");
  // Only the first error of a check counts; the rest only add failed entities.
  human.begin(kCheckQuorumNodes);
  human.recordSuccess("n1", "detail");
  human.recordError(111, "Ping QCR quorum nodes failed", "n2", kSeverityWarning);
  human.recordError(113, "other", "n3", kSeverityFatal);
  EXPECT_EQ(human.errorCode(), 111);
  EXPECT_EQ(human.render(), " Ping QCR quorum nodes failed (111-Ping QCR quorum nodes failed)");
  EXPECT_EQ(human.errorCode(), 0);
  EXPECT_EQ(human.render(), " Ping QCR quorum nodes succeed");
}

TEST(CheckRecord, MachineReadableLinesFollowTheHeader) {
  CheckRecord y(true);
  EXPECT_EQ(y.header(),
            "vyqcr::HEADER:version:reserved:reserved:NodeId:CheckMnemonic:ErrorCode:ErrorMsg:"
            "ListOfFailedEntities:ListOfSucceedEntities:Severity:");
  EXPECT_EQ(y.render(), "vyqcr::0:1:::-1:QCR_CLIENT_INIT:0::::OK:");
  y.setNodeId(2);
  y.begin(kCheckQuorumNodes);
  y.recordSuccess("n1", "");
  y.recordSuccess("n3", "");
  y.recordError(111, "Ping QCR quorum nodes failed", "n2", kSeverityWarning);
  y.recordError(111, "Ping QCR quorum nodes failed", "n4", kSeverityFatal);
  EXPECT_EQ(y.render(),
            "vyqcr::0:1:::2:PC_QUORUM_NODES:111:Ping QCR quorum nodes failed:n2,n4:n1,n3:WARNING:");
  const struct {
    int severity;
    const char* name;
  } severities[] = {{0, "OK"}, {1, "INFO"}, {2, "WARNING"}, {3, "FATAL"}, {4, "UNKNOWN"},
                    {-1, "UNKNOWN"}};
  for (const auto& s : severities) {
    y.begin(kCheckTiebreakers);
    y.recordError(5, "m", "", s.severity);
    EXPECT_EQ(y.render(), std::string("vyqcr::0:1:::2:TC_TIEBREAKER_DISKS:5:m:::") + s.name + ":");
  }
  // An error without a code is recorded as it is (and traced as unexpected).
  y.begin(kCheckCached);
  y.recordError(0, "", "x", 3);
  EXPECT_EQ(y.render(), "vyqcr::0:1:::2:FC_QCR_PAXOS_CACHED:0::x::FATAL:");
}

}  // namespace
}  // namespace qcr
