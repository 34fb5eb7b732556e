// The media-input library as a framework host sees it: loaded at run time,
// reached only through the functions and classes it registers.
#ifndef QO_TOOLS_QOMM_SDK_LIBRARY_H_
#define QO_TOOLS_QOMM_SDK_LIBRARY_H_

#include <string>
#include <vector>

#include "core/qo_registry.h"

namespace qomm {

class SdkLibrary {
 public:
  // Loads the first loadable candidate (or `path` when given). Never
  // unloaded: the registries keep functions that live in the library.
  // Returns false with the loader's messages in *error.
  static bool Load(const std::string& path, std::string* error);
  // Where Require loads from ("" for the usual places).
  static void SetPath(const std::string& path) { requested_path_ = path; }
  // Loads the library unless it is loaded; throws qo::Error when it cannot.
  static void Require();
  static bool loaded() { return handle_ != nullptr; }
  static const std::string& path() { return path_; }

  // The registered global function `name`; throws qo::Error when missing.
  static const qo::PackedFunc& Function(const std::string& name);

  // Address of an exported symbol of the library, or null.
  static void* Symbol(const char* mangled_name);

 private:
  static std::vector<std::string> Candidates();

  static void* handle_;
  static std::string requested_path_;
  static std::string path_;
};

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_SDK_LIBRARY_H_
