// tqdedupd.cpp - a dedup store server for tests, demonstrations and
// benchmarks: serves the files of a folder as objects of the DedupService
// (Thrift, framed transport, binary protocol, one thread per connection).
//
//   tqdedupd --dir DIR [--port P] [--host ADDR] [--port-file FILE]
//            [--max-sessions N] [--log FILE] [fault switches] [--probe-only]
//
// Exit status: 0 after SIGTERM or SIGINT, 1 when it cannot serve, 2 for a bad
// command line.
#include <thrift/Thrift.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/server/TThreadedServer.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TServerSocket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>

#include "tqdedupd/dedup_handler.h"
#include "tqdedupd/faults.h"
#include "tqdedupd/object_store.h"
#include "tqdedupd/options.h"
#include "tqdedupd/probe_only.h"
#include "tqdedupd/recover_processor.h"
#include "tqdedupd/request_log.h"
#include "tqdedupd/stop_signal.h"

namespace tqdedupd {
namespace {

using apache::thrift::TConfiguration;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TTransport;

// Frames and messages up to the largest reply plus room for --extra-bytes and
// the message envelope; Thrift's defaults would refuse 64 MiB frames.
constexpr int kMaxFrameBytes = kMaxRecoverBytes + 2 * 1024 * 1024;

// Framed transports whose configuration admits the largest replies.
class LargeFramedTransportFactory : public apache::thrift::transport::TTransportFactory {
 public:
  LargeFramedTransportFactory() : config_(std::make_shared<TConfiguration>(kMaxFrameBytes, kMaxFrameBytes)) {}
  std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> trans) override {
    trans->setConfiguration(config_);
    // A reply's frame is built in a write buffer that grows to fit it and is
    // kept for the connection's next replies: given back after each large
    // reply, it would be grown (copied at each doubling) and faulted in again
    // for the next.  A connection keeps about twice its largest reply.
    const uint32_t initialSize = 4096, reclaimAbove = 4u * kMaxFrameBytes;
    return std::make_shared<TFramedTransport>(trans, initialSize, reclaimAbove, config_);
  }

 private:
  std::shared_ptr<TConfiguration> config_;
};

std::atomic<RequestLog*> g_log{nullptr};  // for Thrift's own messages, set while serving

void ThriftOutput(const char* message) {
  if (RequestLog* log = g_log.load()) log->Printf("thrift: %s", message);
}

// Writes the port through a temporary file renamed into place, so that a
// reader never sees a partial file, and says where the server listens.
void Announce(const Options& options, RequestLog& log, int port) {
  std::string line = Format("tqdedupd listening on %s:%d", options.host.c_str(), port);
  fprintf(stderr, "%s\n", line.c_str());
  fflush(stderr);
  if (!options.logFile.empty()) log.Line(line);
  if (options.portFile.empty()) return;
  std::string tmp = options.portFile + Format(".tmp.%d", static_cast<int>(getpid()));
  FILE* f = fopen(tmp.c_str(), "w");
  bool ok = f && fprintf(f, "%d\n", port) > 0;
  if (f && fclose(f) != 0) ok = false;
  if (!ok || rename(tmp.c_str(), options.portFile.c_str()) != 0) {
    unlink(tmp.c_str());
    log.Printf("cannot write the port file %s", options.portFile.c_str());
  }
}

// Serializes stopping with the start of listening: a stop that comes before
// the server listens is carried out as soon as it does.
class StopGate {
 public:
  explicit StopGate(apache::thrift::server::TServer& server) : server_(server) {}
  void Listening() {
    std::lock_guard<std::mutex> lock(mutex_);
    listening_ = true;
    if (stopRequested_) server_.stop();
  }
  void RequestStop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stopRequested_ = true;
    if (listening_) server_.stop();
  }
  bool StopRequested() {
    std::lock_guard<std::mutex> lock(mutex_);
    return stopRequested_;
  }

 private:
  apache::thrift::server::TServer& server_;
  std::mutex mutex_;
  bool listening_ = false;
  bool stopRequested_ = false;
};

int RunServer(const Options& options, RequestLog& log) {
  using namespace apache::thrift;
  ObjectStore store(options.dir, options.maxSessions, options.firstConid);
  Faults faults(options);
  auto factory = std::make_shared<HandlerFactory>(store, faults, log);
  auto socket = std::make_shared<transport::TServerSocket>(options.host, options.port);
  // A reply of a megabyte or more leaves in one send rather than in pieces
  // the client must wake up for.
  socket->setTcpSendBuffer(4 * 1024 * 1024);
  server::TThreadedServer server(std::make_shared<RecoverProcessorFactory>(factory), socket,
                                 std::make_shared<LargeFramedTransportFactory>(),
                                 std::make_shared<protocol::TBinaryProtocolFactory>());
  StopGate gate(server);
  server.setServerEventHandler(std::make_shared<ConnectionEvents>(*factory, [&] {
    Announce(options, log, socket->getPort());
    gate.Listening();
  }));
  // Declared after everything its action uses, so that it is destroyed (and
  // its thread joined) before them.
  StopSignal stop(log);
  stop.Start([&] {
    faults.Interrupt();  // delayed replies end at once
    gate.RequestStop();
  });

  g_log = &log;
  GlobalOutput.setOutputFunction(ThriftOutput);
  int status = 0;
  try {
    server.serve();
  } catch (const std::exception& e) {
    log.Printf("cannot serve on %s:%d: %s", options.host.c_str(), options.port, e.what());
    status = 1;
  }
  if (status == 0 && !gate.StopRequested()) {
    log.Line("the server ended without being asked to stop");
    status = 1;
  }
  g_log = nullptr;
  log.Printf("stopped, %d session(s) were still open", store.OpenSessions());
  stop.Finished();
  return status;
}

}  // namespace
}  // namespace tqdedupd

int main(int argc, char** argv) {
  using namespace tqdedupd;
  StopSignal::BlockSignals();  // before any thread exists, so that all inherit it
  Options options;
  std::string error;
  switch (ParseOptions(argc, argv, &options, &error)) {
    case ParseResult::kHelp:
      fputs(kUsage, stdout);
      return 0;
    case ParseResult::kError:
      fprintf(stderr, "tqdedupd: %s\n%s", error.c_str(), kUsage);
      return 2;
    case ParseResult::kRun:
      break;
  }
  RequestLog log;
  if (!log.Open(options.logFile, &error)) {
    fprintf(stderr, "tqdedupd: %s\n", error.c_str());
    return 1;
  }
  if (!options.probeOnly) return RunServer(options, log);
  StopSignal stop(log);
  stop.Start(nullptr);
  int status = RunProbeOnly(options, log, stop, [&](int port) { Announce(options, log, port); });
  stop.Finished();
  return status;
}
