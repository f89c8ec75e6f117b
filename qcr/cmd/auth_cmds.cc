// auth and refresh: connection authentication on the quorum nodes of the local
// node list (qcr/client/auth_keys.h has the walks over the nodes).
#include <cstdio>

#include "qcr/client/auth_keys.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/prologue.h"
#include "qcr/coding/result.h"

namespace qcr {

int AuthCommand(CommandContext& ctx) {
  int rc = CommandPrologue(ctx, true);
  if (rc != 0) return rc;
  int succeeded = 0;
  return AuthInit(ctx.client, ctx.client.repoSession().nodeList, &succeeded);
}

int RefreshCommand(CommandContext& ctx) {
  int rc = CommandPrologue(ctx, true);
  if (rc != 0) return rc;
  // A refresh renews keys that are in use: without them there is nothing to renew.
  if (!ctx.client.security().enabled() || !ctx.client.security().ready()) {
    fprintf(stderr, "security initialization failed (err %d)\n", E_NO_SECURITY);
    return E_NO_SECURITY;
  }
  int succeeded = 0;
  return AuthRefresh(ctx.client, ctx.client.repoSession().nodeList, &succeeded);
}

}  // namespace qcr
