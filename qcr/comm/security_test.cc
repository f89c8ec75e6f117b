#include "qcr/comm/security.h"

#include <gtest/gtest.h>

#include <string>

#include "basic/files.h"
#include "basic/tempdir.h"
#include "qcr/comm/result.h"

namespace qcr {
namespace {

// Without a keys file security is not ready and nothing fails yet; a keys file
// needs the TLS provider, which this build does not have.
TEST(Security, StartupWithAndWithoutKeys) {
  std::string dir;
  ASSERT_EQ(makeTempDir("qcr_security_", &dir), 0);
  const std::string keys = dir + "/authorized_qcr_keys";
  EXPECT_EQ(securityStartup(true, keys), 0);
  EXPECT_FALSE(secReady());
  EXPECT_EQ(secCipherList(), "");
  EXPECT_EQ(localKeyGeneration(), -1);
  ASSERT_EQ(writeFile(keys, "clusterName=c1\n", 0600, false), 0);
  EXPECT_EQ(securityStartup(false, keys), kErrSecurityLibrary);
  EXPECT_FALSE(secReady());
  EXPECT_EQ(removeTree(dir), 0);
}

TEST(Security, AuthenticationNeedsKeysAndAuthOnly) {
  const struct {
    int aGen;
    int cGen;
    std::optional<std::string> cipher;
    int rc;
  } cases[] = {
      {-1, 0, "AUTHONLY", E_NO_SECURITY},  {0, -1, "AUTHONLY", E_NO_SECURITY},
      {0, 0, std::nullopt, E_NO_SECURITY}, {0, 0, "AUTHONLY ", E_NO_SECURITY},
      {0, 0, "authonly", E_NO_SECURITY},   {1, 0, "AUTHONLY", kErrSecurityLibrary},
  };
  for (const auto& c : cases) {
    SecurityParams params;
    params.localKeyGen = c.aGen;
    params.peerKeyGen = c.cGen;
    params.peerCipherList = c.cipher;
    EXPECT_EQ(AuthenticateOutgoing(-1, params), c.rc) << c.aGen << " " << c.cGen;
  }
}

}  // namespace
}  // namespace qcr
