#include "samples.h"

#include <unistd.h>

#include <cstdlib>

namespace qomm {

std::string ProgramDir() {
  char buf[4096];
  ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
  if (n <= 0) return ".";
  buf[n] = '\0';
  std::string path(buf);
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

std::vector<std::string> SampleDirs() {
  // An installed tree may have been moved: look beside the program first.
  return {ProgramDir() + "/../" QO_SAMPLES_RELATIVE_DIR, QO_SAMPLES_INSTALL_DIR,
          QO_SAMPLES_SOURCE_DIR};
}

std::string FindSample(const std::string& name) {
  for (const std::string& dir : SampleDirs()) {
    std::string path = dir + "/" + name;
    if (access(path.c_str(), R_OK) != 0) continue;
    char* real = realpath(path.c_str(), nullptr);
    if (real != nullptr) {
      path = real;
      free(real);
    }
    return path;
  }
  return "";
}

}  // namespace qomm
