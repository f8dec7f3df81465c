// recover_into.h - the service's recover call with its reply read straight
// into the caller's buffer.
//
// The generated client reads a reply's bytes into a std::string, which the
// caller then copies into its own buffer: two copies of every byte after the
// socket's.  RecoverInto makes the same call (the same request on the wire,
// the same checks and exceptions as the generated recv_recover) but reads the
// bytes from the transport into the caller's buffer, once.
#ifndef N7DEDUP_RECOVER_INTO_H
#define N7DEDUP_RECOVER_INTO_H

#include <cstdint>
#include <string>

#include "n7dedup/DedupService.h"

namespace n7dedup {

// Asks the service for up to `ask` bytes of session conid and stores the
// reply's first min(reply, ask) bytes at buffer; the rest of a longer reply
// goes to *surplus (cleared first; may be null: dropped).  Returns the
// reply's full length.  Throws what recv_recover throws.
int64_t RecoverInto(DedupServiceClient& client, int32_t conid, int32_t ask, char* buffer, std::string* surplus);

}  // namespace n7dedup

#endif
