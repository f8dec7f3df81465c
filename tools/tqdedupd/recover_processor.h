// recover_processor.h - the service's processor with a reply buffer that
// lives as long as its connection.
//
// Thrift's generated processor builds every recover reply in a new result
// object: a reply of 64 MiB is a fresh allocation, zero-filled and faulted in
// page by page, for each call.  This processor answers recover with the same
// bytes on the wire through one result object per connection, whose string
// keeps its storage from call to call; every other call goes to the
// generated code.
#ifndef TQDEDUPD_RECOVER_PROCESSOR_H
#define TQDEDUPD_RECOVER_PROCESSOR_H

#include <memory>
#include <string>

#include "n7dedup/DedupService.h"

namespace tqdedupd {

class RecoverProcessor : public n7dedup::DedupServiceProcessor {
 public:
  explicit RecoverProcessor(const std::shared_ptr<n7dedup::DedupServiceIf>& iface)
      : n7dedup::DedupServiceProcessor(iface) {}

 protected:
  bool dispatchCall(apache::thrift::protocol::TProtocol* iprot, apache::thrift::protocol::TProtocol* oprot,
                    const std::string& fname, int32_t seqid, void* callContext) override;

 private:
  void ProcessRecover(int32_t seqid, apache::thrift::protocol::TProtocol* iprot,
                      apache::thrift::protocol::TProtocol* oprot, void* callContext);

  n7dedup::DedupService_recover_result result_;  // reused: its string keeps its storage
};

// Makes a RecoverProcessor per connection, with a handler from the factory.
class RecoverProcessorFactory : public n7dedup::DedupServiceProcessorFactory {
 public:
  using n7dedup::DedupServiceProcessorFactory::DedupServiceProcessorFactory;
  std::shared_ptr<apache::thrift::TProcessor> getProcessor(const apache::thrift::TConnectionInfo& connInfo) override;
};

}  // namespace tqdedupd

#endif
