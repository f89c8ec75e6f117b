// Shared libraries loaded at run time: a program that can do without a library
// (the TLS provider) opens it by name when it first needs it and looks its entry
// points up by name, so it neither links against it nor needs it installed.
#pragma once

#include <string>

namespace qcr {

class SharedLibrary final {
 public:
  SharedLibrary() = default;
  // A library stays loaded for the rest of the process: entry points handed out
  // stay valid, and unloading a TLS provider is never safe anyway.
  ~SharedLibrary() = default;
  SharedLibrary(const SharedLibrary&) = delete;
  SharedLibrary& operator=(const SharedLibrary&) = delete;

  // Loads the library named name (a file name searched the usual way, or a path).
  // True on success; otherwise error() says why.
  bool open(const std::string& name);
  // The entry point called name, or null (error() then says why).
  void* symbol(const char* name);
  const std::string& error() const { return error_; }

 private:
  void* handle_ = nullptr;
  std::string error_;
};

}  // namespace qcr
