// n7dedup_client2.cpp - the connection table and the calls of the dedup
// store client.
#include "tqs/tq_dedup/n7dedup_client2.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>

#include <thrift/TConfiguration.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>
#include <thrift/transport/TSocket.h>

#include "n7dedup/DedupService.h"
#include "recover_into.h"
#include "platform/platform.h"
#include "tqs/tq_dedup/n7dedup_errors.h"

using apache::thrift::TConfiguration;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TFramedTransport;
using apache::thrift::transport::TSocket;

namespace {

constexpr int kConnectTimeoutMs = 300000;
constexpr int kReceiveTimeoutMs = 1200000;
constexpr int kSendTimeoutMs = 1200000;
constexpr size_t kDataBufferBytes = 262144;

std::mutex g_tableMutex;
std::map<int32_t, std::unique_ptr<DedupClientStruct>> g_table;

// A reply of kDedupMaxRead bytes travels in one frame with a little protocol
// overhead around it; Thrift's default frame limit (16 MB) is too small.
std::shared_ptr<TConfiguration> ClientConfiguration() {
  return std::make_shared<TConfiguration>(2 * kDedupMaxRead, kDedupMaxRead + (1 << 20));
}

// The binary protocol over a client transport.  A string or binary field of
// a reply is at most one recover reply long and a list holds at most a
// store's history; without these limits a reply that claims a 2 GB message
// name is allocated before the frame is found to be short.
std::shared_ptr<TBinaryProtocol> ClientProtocol(std::shared_ptr<apache::thrift::transport::TTransport> transport) {
  constexpr int32_t kStringLimit = kDedupMaxRead;
  constexpr int32_t kContainerLimit = 1 << 20;
  return std::make_shared<TBinaryProtocol>(transport, kStringLimit, kContainerLimit, false, true);
}

// Checks that the server accepts TCP connections before Thrift opens its
// transport, printing what failed.  false when the server cannot be reached.
bool ProbeServer(const char* host, uint32_t port) {
  char service[16];
  snprintf(service, sizeof service, "%d", static_cast<int>(port));
  int error = 0;
  switch (pf::TcpProbe(host, service, &error)) {
    case pf::kProbeOk:
      return true;
    case pf::kProbeStartup:
      printf("WSAStartup failed with error: %ld\n", static_cast<long>(error));
      break;
    case pf::kProbeResolve:
      printf("getaddrinfo failed with error: %ld\n", static_cast<long>(error));
      break;
    case pf::kProbeSocket:
      printf("socket() error\n");
      break;
    case pf::kProbeConnect:
      printf("socket connect() error\n");
      break;
    case pf::kProbeClose:
      printf("closesocket function failed with error: %ld\n", static_cast<long>(error));
      break;
  }
  fflush(stdout);
  DedupSetLastError("error while connecting with upstream %s:%u: %s", host, port,
                    pf::ErrorText(error).c_str());
  DedupLog(dlERROR, "%s", g_dedupLastError);
  return false;
}

}  // namespace

DedupClientStruct::DedupClientStruct() { data_.reserve(kDataBufferBytes); }
DedupClientStruct::~DedupClientStruct() = default;

int DedupClientStruct::Connect(const char* host, uint32_t port) {
  if (client_) return -1;  // already connected
  return DedupGuard("error while connecting with upstream", __LINE__, -1, [&] {
    auto config = ClientConfiguration();
    socket_ = std::make_shared<TSocket>(host, static_cast<int>(port), config);
    socket_->setConnTimeout(kConnectTimeoutMs);
    socket_->setRecvTimeout(kReceiveTimeoutMs);
    socket_->setSendTimeout(kSendTimeoutMs);
    transport_ = std::make_shared<TFramedTransport>(socket_, config);
    client_ = std::make_shared<n7dedup::DedupServiceClient>(ClientProtocol(transport_));
    if (!ProbeServer(host, port)) return -1;
    transport_->open();
    return 0;
  });
}

int DedupClientStruct::ConnectTransport(std::shared_ptr<apache::thrift::transport::TTransport> transport) {
  if (client_) return -1;  // already connected
  return DedupGuard("error while connecting with upstream", __LINE__, -1, [&] {
    transport_ = std::make_shared<TFramedTransport>(transport, ClientConfiguration());
    client_ = std::make_shared<n7dedup::DedupServiceClient>(ClientProtocol(transport_));
    return 0;
  });
}

int DedupClientStruct::startRecv_h(const char* name) {
  int rc = DedupGuard("DedupClientStruct::startRecv_h error while starting receive", __LINE__, -1,
                      [&] { return client_->startRecover(name); });
  if (rc < 0) {
    if (rc != -1 || g_dedupLastError[0] == '\0')
      DedupSetLastError("DedupClientStruct::startRecv_h error while starting receive: result %d", rc);
    return rc;
  }
  status_ = rc;
  receiving_ = true;
  return rc;
}

int DedupClientStruct::fread_h(int32_t conid, char* buffer, int32_t n, int32_t* read) {
  *read = 0;
  lastReplyBytes_ = 0;
  return DedupGuard("DedupClientStruct::fread_h error while reading", __LINE__, -1, [&] {
    // The reply's bytes go from the transport straight into buffer; a reply
    // longer than asked is cut to the request (its surplus lands in data_).
    const int64_t length = n7dedup::RecoverInto(*client_, conid, n, buffer, &data_);
    lastReplyBytes_ = length;
    *read = static_cast<int32_t>(length < n ? length : n);
    return 0;
  });
}

int DedupClientStruct::skip_h(int32_t conid, int64_t bytes) {
  return DedupGuard("DedupClientStruct::skip_h failed to skip bytes.", __LINE__, -1, [&] {
    client_->skip(conid, bytes);
    return 0;
  });
}

int DedupClientStruct::rewind_h(int32_t conid) {
  return DedupGuard("DedupClientStruct::rewind_h failed to rewind", __LINE__, -1, [&] {
    client_->rewind(conid);
    return 0;
  });
}

int DedupClientStruct::Close() {
  int rc = 0;
  if (client_ && transport_ && transport_->isOpen()) {
    rc = DedupGuard("Failure in dedup_close()", __LINE__, -1, [&] {
      if (receiving_) client_->close(status_);
      return 0;
    });
  }
  if (transport_) {
    DedupGuard("Failure in dedup_close()", __LINE__, -1, [&] {
      transport_->close();
      return 0;
    });
  }
  client_.reset();
  transport_.reset();
  socket_.reset();
  status_ = -1;
  receiving_ = false;
  return rc;
}

int DedupClientStruct::GetObjectInfo(const char* name, DEDUP_OBJECT_INFO* info) {
  memset(info, 0, sizeof *info);
  return DedupGuard("Failed to retrieve object metadata", __LINE__, 1, [&] {
    n7dedup::ObjectMetadata m;
    client_->getObjectMetadata(m, name);
    info->llNewChunks = m.newChunks;
    info->llDedupChunks = m.totalChunks - m.newChunks;
    info->llDedupBytes = m.totalBytes - m.newBytes;
    info->llNewBytes = m.newBytes;
    info->iRuntime = m.runtime;
    info->iCtime = m.ctime;
    snprintf(info->szSoftwareVersion, sizeof info->szSoftwareVersion, "%s", m.softwareVersion.c_str());
    snprintf(info->szSoftwareId, sizeof info->szSoftwareId, "%s",
             m.__isset.softwareGitId ? m.softwareGitId.c_str() : "-unknown-");
    info->llTreePageId = m.treePageId;
    info->bReplication = m.__isset.replicationRequest ? 1 : 0;
    if (info->bReplication)
      snprintf(info->szReplication, sizeof info->szReplication, "%s:%d", m.replicationRequest.host.c_str(),
               m.replicationRequest.port);
    return 0;
  });
}

int dedup_connect(int32_t* handle, const char* host, uint32_t port) {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  int32_t h = 0;
  for (const auto& entry : g_table) {  // ordered: the first gap is the smallest free handle
    if (entry.first != h) break;
    ++h;
  }
  auto inserted = g_table.emplace(h, std::unique_ptr<DedupClientStruct>(new DedupClientStruct));
  *handle = h;
  return inserted.first->second->Connect(host, port);
}

DedupClientStruct* dedup_client(int32_t handle) {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  auto it = g_table.find(handle);
  return it == g_table.end() ? nullptr : it->second.get();
}

int dedup_close(int32_t handle) {
  std::unique_ptr<DedupClientStruct> client;
  {
    std::lock_guard<std::mutex> lock(g_tableMutex);
    auto it = g_table.find(handle);
    if (it == g_table.end()) return -1;
    client = std::move(it->second);
    g_table.erase(it);
  }
  return client->Close();
}

int dedup_get_object_info(int32_t handle, DEDUP_OBJECT_INFO* info, const char* name) {
  DedupClientStruct* client = dedup_client(handle);
  if (!client) {
    DedupSetLastError("Failed to retrieve object metadata: no connection with handle %d", handle);
    return 1;
  }
  return client->GetObjectInfo(name, info);
}

size_t dedup_connection_count() {
  std::lock_guard<std::mutex> lock(g_tableMutex);
  return g_table.size();
}
