#include "basic/shared_library.h"

#include <dlfcn.h>

namespace qcr {

namespace {

std::string lastDlError() {
  const char* text = dlerror();
  return text != nullptr ? text : "unknown error";
}

}  // namespace

bool SharedLibrary::open(const std::string& name) {
  handle_ = dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (handle_ == nullptr) error_ = lastDlError();
  return handle_ != nullptr;
}

void* SharedLibrary::symbol(const char* name) {
  if (handle_ == nullptr) {
    error_ = "library not loaded";
    return nullptr;
  }
  dlerror();  // a null entry point is told from a failure only by dlerror
  void* address = dlsym(handle_, name);
  if (address == nullptr) error_ = lastDlError();
  return address;
}

}  // namespace qcr
