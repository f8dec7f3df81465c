// object_store.h - the objects of tqdedupd (the files of one folder) and the
// recover sessions open on them.
//
// A session is a file opened at startRecover plus a byte position.  Sessions
// are numbered from 1 for the life of the server, may be used from any
// connection, and remember the connection that opened them so that they can
// be released when it ends.  All methods may be called from any thread.
#ifndef TQDEDUPD_OBJECT_STORE_H
#define TQDEDUPD_OBJECT_STORE_H

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>

namespace tqdedupd {

// A failed store operation; the handler maps the kind to a service exception.
class StoreError : public std::runtime_error {
 public:
  enum Kind { kNoObject, kNoSession, kTooManySessions, kBadArgument, kIoError };
  StoreError(Kind kind, const std::string& message) : std::runtime_error(message), kind_(kind) {}
  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

// What getObjectMetadata reports about an object.
struct ObjectInfo {
  int64_t size = 0;
  int64_t mtime = 0;  // seconds since the epoch
};

// Where a session stands after an operation, for the request log.
struct SessionState {
  std::string name;
  int64_t position = 0;
  int64_t size = 0;
};

class ObjectStore {
 public:
  // Session ids are handed out from firstConid upward.
  ObjectStore(const std::string& dir, int maxSessions, int32_t firstConid = 1);
  ~ObjectStore();
  ObjectStore(const ObjectStore&) = delete;
  ObjectStore& operator=(const ObjectStore&) = delete;

  // Size and modification time of an object; kNoObject when the name is not
  // a plain file name or names no readable regular file in the folder.
  ObjectInfo Stat(const std::string& name) const;

  // Opens a session at position 0 for the given connection and returns its
  // id.  kNoObject as for Stat, kTooManySessions when the limit is reached.
  int32_t Open(const std::string& name, uint64_t connection, SessionState* state);

  // Reads up to n bytes at the session's position into *data (empty at or
  // past the end) and advances by what was read.  kNoSession, kIoError.
  void Read(int32_t conid, size_t n, std::string* data, SessionState* state);

  // Moves the position forward by n >= 0 (it may pass the end; the position
  // saturates instead of overflowing).  kNoSession, kBadArgument for n < 0.
  void Skip(int32_t conid, int64_t n, SessionState* state);

  void Rewind(int32_t conid, SessionState* state);

  // Ends a session.  kNoSession when it is not open.
  void Close(int32_t conid, SessionState* state);

  // Ends every session that the connection opened; returns how many.
  int CloseAllOf(uint64_t connection);

  int OpenSessions() const;

  // True when name may name an object: not empty, no "/" or "\" or NUL,
  // and not "." or "..".
  static bool ValidName(const std::string& name);

 private:
  struct Session;
  std::shared_ptr<Session> Find(int32_t conid) const;

  std::string dir_;
  int maxSessions_;
  mutable std::mutex mutex_;  // guards sessions_ and nextConid_
  std::map<int32_t, std::shared_ptr<Session>> sessions_;
  int32_t nextConid_ = 1;
};

}  // namespace tqdedupd

#endif
