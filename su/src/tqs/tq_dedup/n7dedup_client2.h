// n7dedup_client2.h - the module's client of the dedup store service.
//
// A table of connections keyed by a small integer handle (smallest free
// handle first), guarded by one process-wide mutex held for the whole of a
// connect.  Every remote failure is caught here: its description goes into
// the calling thread's g_dedupLastError (and a line on the standard error
// stream), and the caller gets a negative or non-zero result.  Nothing
// thrown by Thrift or the service leaves this file.
//
// Thread safety: dedup_connect and dedup_close may be called from any
// thread.  One connection is used by one caller at a time (the saveset's
// operation mutex guarantees that).
#ifndef TVU_TQS_N7DEDUP_CLIENT2_H
#define TVU_TQS_N7DEDUP_CLIENT2_H

#include <cstdint>
#include <memory>
#include <string>

namespace apache {
namespace thrift {
namespace transport {
class TTransport;
class TSocket;
}  // namespace transport
}  // namespace thrift
}  // namespace apache
namespace n7dedup {
class DedupServiceClient;
}

// Text of the last failed dedup call of this thread (1023 characters at most).
extern thread_local char g_dedupLastError[1024];

// The largest read one recover call may ask for.
constexpr int32_t kDedupMaxRead = 64 * 1024 * 1024;

// What the object metadata query returns.
struct DEDUP_OBJECT_INFO {
  int64_t llNewChunks;
  int64_t llDedupChunks;   // totalChunks - newChunks
  int64_t llDedupBytes;    // totalBytes - newBytes
  int64_t llNewBytes;
  int32_t iRuntime;
  int32_t iCtime;
  char szSoftwareVersion[32];
  char szSoftwareId[32];   // "-unknown-" when the server does not say
  int64_t llTreePageId;
  int32_t bReplication;
  char szReplication[64];  // "host:port" of the replication request
};

class DedupClientStruct {
 public:
  DedupClientStruct();
  ~DedupClientStruct();

  // Builds the client, probes the server and opens the transport; 0 or -1.
  int Connect(const char* host, uint32_t port);
  // Builds the client over a transport that is open already, framed and
  // with the binary protocol as over a socket (tests: replies from memory).
  int ConnectTransport(std::shared_ptr<apache::thrift::transport::TTransport> transport);
  // Starts receiving an object; returns the service's result (the conid,
  // which the struct keeps), or -1.
  int startRecv_h(const char* name);
  // Reads at most n bytes (a longer reply is cut to n); 0 or -1.  A short
  // or empty reply is not an error.
  int fread_h(int32_t conid, char* buffer, int32_t n, int32_t* read);
  // Length of the last recover reply before the cut (0 after a failed call),
  // so that the caller can tell when a reply was longer than asked.
  int64_t lastReplyBytes() const { return lastReplyBytes_; }
  int skip_h(int32_t conid, int64_t bytes);
  int rewind_h(int32_t conid);
  // Ends the session on the server and closes the transport; 0 or -1.
  int Close();
  int GetObjectInfo(const char* name, DEDUP_OBJECT_INFO* info);

  int32_t conid() const { return status_; }

 private:
  std::shared_ptr<apache::thrift::transport::TSocket> socket_;
  std::shared_ptr<apache::thrift::transport::TTransport> transport_;
  std::shared_ptr<n7dedup::DedupServiceClient> client_;
  // The conid of the started receive, -1 before.  Any id the store hands
  // out, 0 included, is valid; receiving_ says whether one was handed out.
  int32_t status_ = -1;
  bool receiving_ = false;
  int64_t lastReplyBytes_ = 0;
  std::string data_;  // received bytes beyond a request, reserved at 256 KiB
};

// Connects to host:port and stores the new connection's handle; 0 or -1.
int dedup_connect(int32_t* handle, const char* host, uint32_t port);
// The connection of a handle, or null.
DedupClientStruct* dedup_client(int32_t handle);
// Closes the connection and removes the handle; 0, or -1 when the close failed.
int dedup_close(int32_t handle);
// Object metadata by handle; 0, or non-zero on failure.
int dedup_get_object_info(int32_t handle, DEDUP_OBJECT_INFO* info, const char* name);
// Number of handles in the table (tests).
size_t dedup_connection_count();

#endif
