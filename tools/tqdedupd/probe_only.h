// probe_only.h - the --probe-only mode of tqdedupd: a server that accepts a
// client's TCP connection probe and then refuses the connection that would
// carry the service.
#ifndef TQDEDUPD_PROBE_ONLY_H
#define TQDEDUPD_PROBE_ONLY_H

#include <functional>

#include "tqdedupd/options.h"
#include "tqdedupd/request_log.h"
#include "tqdedupd/stop_signal.h"

namespace tqdedupd {

// Listens on the options' host and port, calls announce(port) once
// listening, accepts exactly one connection and closes it, closes the
// listening socket, and waits for a stop signal.  Returns the exit status.
int RunProbeOnly(const Options& options, RequestLog& log, StopSignal& stop, const std::function<void(int)>& announce);

}  // namespace tqdedupd

#endif
