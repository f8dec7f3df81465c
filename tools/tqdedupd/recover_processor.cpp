// recover_processor.cpp - recover answered through a reply buffer per
// connection (see recover_processor.h).
#include "tqdedupd/recover_processor.h"

#include <thrift/TApplicationException.h>
#include <thrift/TProcessor.h>
#include <thrift/protocol/TProtocol.h>

namespace tqdedupd {

using apache::thrift::TApplicationException;
using apache::thrift::protocol::TProtocol;

bool RecoverProcessor::dispatchCall(TProtocol* iprot, TProtocol* oprot, const std::string& fname, int32_t seqid,
                                    void* callContext) {
  if (fname != "recover") return n7dedup::DedupServiceProcessor::dispatchCall(iprot, oprot, fname, seqid, callContext);
  ProcessRecover(seqid, iprot, oprot, callContext);
  return true;
}

// The generated process_recover, step for step (events, exceptions, the
// reply's fields), but with the connection's result object.
void RecoverProcessor::ProcessRecover(int32_t seqid, TProtocol* iprot, TProtocol* oprot, void* callContext) {
  void* ctx = nullptr;
  if (eventHandler_ != nullptr) ctx = eventHandler_->getContext("DedupService.recover", callContext);
  apache::thrift::TProcessorContextFreer freer(eventHandler_.get(), ctx, "DedupService.recover");
  if (eventHandler_ != nullptr) eventHandler_->preRead(ctx, "DedupService.recover");

  n7dedup::DedupService_recover_args args;
  args.read(iprot);
  iprot->readMessageEnd();
  uint32_t bytes = iprot->getTransport()->readEnd();
  if (eventHandler_ != nullptr) eventHandler_->postRead(ctx, "DedupService.recover", bytes);

  // Fresh fields but the reply string, which the handler overwrites.
  n7dedup::DedupService_recover_result& result = result_;
  result.snf = n7dedup::SessionNotFound();
  result.dce = n7dedup::DataCorruptionException();
  result.__isset = n7dedup::_DedupService_recover_result__isset();
  try {
    iface_->recover(result.success, args.conid, args.howManyBytes);
    result.__isset.success = true;
  } catch (n7dedup::SessionNotFound& snf) {
    result.snf = std::move(snf);
    result.__isset.snf = true;
  } catch (n7dedup::DataCorruptionException& dce) {
    result.dce = std::move(dce);
    result.__isset.dce = true;
  } catch (const std::exception& e) {
    if (eventHandler_ != nullptr) eventHandler_->handlerError(ctx, "DedupService.recover");
    TApplicationException x(e.what());
    oprot->writeMessageBegin("recover", apache::thrift::protocol::T_EXCEPTION, seqid);
    x.write(oprot);
    oprot->writeMessageEnd();
    oprot->getTransport()->writeEnd();
    oprot->getTransport()->flush();
    return;
  }

  if (eventHandler_ != nullptr) eventHandler_->preWrite(ctx, "DedupService.recover");
  oprot->writeMessageBegin("recover", apache::thrift::protocol::T_REPLY, seqid);
  result.write(oprot);
  oprot->writeMessageEnd();
  bytes = oprot->getTransport()->writeEnd();
  oprot->getTransport()->flush();
  if (eventHandler_ != nullptr) eventHandler_->postWrite(ctx, "DedupService.recover", bytes);
}

std::shared_ptr<apache::thrift::TProcessor> RecoverProcessorFactory::getProcessor(
    const apache::thrift::TConnectionInfo& connInfo) {
  apache::thrift::ReleaseHandler<n7dedup::DedupServiceIfFactory> cleanup(handlerFactory_);
  std::shared_ptr<n7dedup::DedupServiceIf> handler(handlerFactory_->getHandler(connInfo), cleanup);
  return std::make_shared<RecoverProcessor>(handler);
}

}  // namespace tqdedupd
