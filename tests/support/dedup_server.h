// dedup_server.h - starts and stops a tqdedupd (the dedup store server built
// with the tests) for a test: on 127.0.0.1, on a port the OS chooses, with
// its log in a private temporary folder.
#ifndef TVU_TESTS_DEDUP_SERVER_H
#define TVU_TESTS_DEDUP_SERVER_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

#include "support/test_util.h"

namespace tvutest {

class DedupServer {
 public:
  struct Options {
    std::string dir;                // folder whose files are the objects (required)
    std::vector<std::string> args;  // further arguments, e.g. {"--fail-recover", "3"}
    int startTimeoutMs = 10000;     // longest wait for the server to listen
  };

  DedupServer();
  ~DedupServer();  // kills a server still running
  DedupServer(const DedupServer&) = delete;
  DedupServer& operator=(const DedupServer&) = delete;

  // Starts the server and waits until it listens; throws std::runtime_error
  // (with the server's output) when it exits or does not listen in time.
  void start(const Options& options);

  // The port it listens on (after start).
  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  bool running();

  // Sends SIGTERM (or the given signal) and waits up to timeoutMs for the
  // server to end; kills it if it does not.  exitCode is its exit status
  // (-1 when killed or timed out), err its standard error with the request
  // log.  stopMs, when given, receives how long the server took to end.
  ProcessResult stop(int signal = 15, int timeoutMs = 3000, int* stopMs = nullptr);

  // Ends the server at once with SIGKILL.
  void kill();

  // What the server has written to standard error so far: the
  // "listening" line and one line per request.
  std::string log() const;

 private:
  std::unique_ptr<TempDir> work_;
  pid_t pid_ = -1;
  int port_ = 0;
  int status_ = 0;       // wait status, valid when reaped_
  bool reaped_ = false;  // the last server started has been waited for
};

}  // namespace tvutest

#endif
