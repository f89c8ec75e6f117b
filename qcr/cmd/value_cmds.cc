// vlist, vget, vput and vdel: the named values of the repository.
#include <cstdio>

#include "qcr/client/requests.h"
#include "qcr/cmd/handlers.h"
#include "qcr/cmd/session.h"
#include "qcr/coding/result.h"

namespace qcr {

int VList() {
  if (const int rc = CommandPrologue(false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = VGET(&result); rc != 0) return commandFailed("list", rc);
  fputs("  version  name                 value\n"
        "---------  -------------------- --------------------------------------------\n",
        stdout);
  for (const auto& [name, value] : result.state.values) {
    printf("%9d  %-20s \"%s\"\n", value.version, name.c_str(), value.text.c_str());
  }
  return 0;
}

int VGet(const std::string& name) {
  if (const int rc = CommandPrologue(false); rc != 0) return rc;
  RequestResult result;
  if (const int rc = VGET(&result); rc != 0) return commandFailed("vget", rc);
  const auto iter = result.state.values.find(name);
  if (iter == result.state.values.end()) {
    fprintf(stderr, "\"%s\" is undefined\n", name.c_str());
    return E_NOT_FOUND;
  }
  printf("vget:%d:%s\n", iter->second.version, iter->second.text.c_str());
  return 0;
}

int VPut(const std::string& name, const std::string& value, int32_t newVersion,
         int32_t condVersion) {
  if (const int rc = CommandPrologue(true); rc != 0) return rc;
  RequestResult result;
  if (const int rc = VPUT(name, value, newVersion, condVersion, &result); rc != 0) {
    return commandFailed("vput", rc);
  }
  return 0;
}

int VDel(const std::string& name, int32_t condVersion) {
  if (const int rc = CommandPrologue(true); rc != 0) return rc;
  RequestResult result;
  if (const int rc = VDEL(name, condVersion, &result); rc != 0) return commandFailed("vdel", rc);
  return 0;
}

}  // namespace qcr
