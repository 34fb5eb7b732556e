// The bundled sample clips: installed with the program, or in the source
// tree the program was built from.
#ifndef QO_TOOLS_QOMM_SAMPLES_H_
#define QO_TOOLS_QOMM_SAMPLES_H_

#include <string>
#include <vector>

namespace qomm {

// Directory of this program, without the trailing slash ("." if unknown).
std::string ProgramDir();
// Directories searched, in order.
std::vector<std::string> SampleDirs();
// Path of the sample `name` ("sample.h264"), or "" when none is readable.
std::string FindSample(const std::string& name);

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_SAMPLES_H_
