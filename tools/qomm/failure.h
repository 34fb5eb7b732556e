// Short reasons for failed sources, for the one line a user reads.
#ifndef QO_TOOLS_QOMM_FAILURE_H_
#define QO_TOOLS_QOMM_FAILURE_H_

#include <string>

namespace qomm {

// The message of a framework error without its location, stack trace and
// trailing marks: "Stream Open failed".
std::string ErrorMessage(const std::string& what);

// Connects to the host and port of an rtsp:// URI (default port 554) and
// returns "" when that works, else why not: "connection refused", "host not
// found", "connection timed out", ...
std::string CheckRtspReachable(const std::string& uri);

// Like CheckRtspReachable, then asks the server for the stream (DESCRIBE):
// "" when it offers it (or does not answer), else "the server answered 404
// Not Found" and the like.
std::string CheckRtspStream(const std::string& uri);

// Why a local file or device cannot be read, "" when it can.
std::string CheckReadable(const std::string& path);

// The best short reason for a source that delivered nothing: an unreachable
// or refusing RTSP server, else the last error GStreamer reported, else `fallback`.
std::string ExplainSourceFailure(const std::string& uri, const std::string& fallback);

}  // namespace qomm

#endif  // QO_TOOLS_QOMM_FAILURE_H_
