#include "sdk_library.h"

#include <dlfcn.h>
#include <unistd.h>

#include "core/qo_logging.h"
#include "samples.h"

namespace qomm {

void* SdkLibrary::handle_ = nullptr;
std::string SdkLibrary::path_;
std::string SdkLibrary::requested_path_;

// The build tree keeps the library one level above the program, an install
// in the library directory next to bin/; last comes the loader's own search.
std::vector<std::string> SdkLibrary::Candidates() {
  const std::string dir = ProgramDir();
  return {dir + "/../" QO_SDKMM_SONAME, dir + "/../" QO_INSTALL_LIBDIR "/" QO_SDKMM_SONAME,
          QO_SDKMM_SONAME, "libqosdkmm.so"};
}

bool SdkLibrary::Load(const std::string& path, std::string* error) {
  if (handle_ != nullptr) return true;
  std::vector<std::string> candidates =
      path.empty() ? Candidates() : std::vector<std::string>{path};
  std::string errors;
  for (const std::string& candidate : candidates) {
    void* handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (handle != nullptr) {
      handle_ = handle;
      path_ = candidate;
      return true;
    }
    const char* err = dlerror();
    if (!errors.empty()) errors += "; ";
    errors += err != nullptr ? err : candidate;
  }
  *error = "cannot load the media-input library (" + errors + ")";
  return false;
}

void SdkLibrary::Require() {
  std::string error;
  if (!Load(requested_path_, &error)) throw qo::Error(error);
}

const qo::PackedFunc& SdkLibrary::Function(const std::string& name) {
  Require();
  const qo::PackedFunc* f = qo::Registry::Get(name);
  if (f == nullptr || !*f) {
    throw qo::Error("the media-input library registers no function \"" + name + "\"");
  }
  return *f;
}

void* SdkLibrary::Symbol(const char* mangled_name) {
  if (handle_ == nullptr) return nullptr;
  return dlsym(handle_, mangled_name);
}

}  // namespace qomm
