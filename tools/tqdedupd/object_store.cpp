// object_store.cpp - objects as files of one folder, sessions as open files
// with a position.
#include "tqdedupd/object_store.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "tqdedupd/request_log.h"

namespace tqdedupd {

struct ObjectStore::Session {
  int fd = -1;
  std::string name;
  int64_t size = 0;  // fixed when the session opens
  uint64_t owner = 0;
  std::mutex mutex;  // guards position; one request at a time per session
  int64_t position = 0;

  ~Session() {
    if (fd >= 0) ::close(fd);
  }
  SessionState State() const { return SessionState{name, position, size}; }
};

namespace {

// Opens name in dir as a regular file and learns its size and time.
int OpenObject(const std::string& dir, const std::string& name, ObjectInfo* info) {
  if (!ObjectStore::ValidName(name))
    throw StoreError(StoreError::kNoObject, "object " + Quote(name) + " does not exist (not a plain object name)");
  std::string path = dir + "/" + name;
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    int e = errno;
    throw StoreError(StoreError::kNoObject, "object " + Quote(name) + " does not exist (" + strerror(e) + ")");
  }
  struct stat st;
  if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    throw StoreError(StoreError::kNoObject, "object " + Quote(name) + " does not exist (not a regular file)");
  }
  info->size = static_cast<int64_t>(st.st_size);
  info->mtime = static_cast<int64_t>(st.st_mtime);
  return fd;
}

StoreError NoSession(int32_t conid) {
  return StoreError(StoreError::kNoSession, Format("no open session with conid %d", conid));
}

}  // namespace

ObjectStore::ObjectStore(const std::string& dir, int maxSessions, int32_t firstConid)
    : dir_(dir), maxSessions_(maxSessions), nextConid_(firstConid) {}

ObjectStore::~ObjectStore() = default;

bool ObjectStore::ValidName(const std::string& name) {
  if (name.empty() || name == "." || name == "..") return false;
  // "\" is refused too: code that shares paths with the module treats it as
  // a separator, so it must not reach another folder through this name.
  return name.find_first_of(std::string("/\\\0", 3)) == std::string::npos;
}

ObjectInfo ObjectStore::Stat(const std::string& name) const {
  ObjectInfo info;
  ::close(OpenObject(dir_, name, &info));
  return info;
}

int32_t ObjectStore::Open(const std::string& name, uint64_t connection, SessionState* state) {
  ObjectInfo info;
  auto session = std::make_shared<Session>();
  session->fd = OpenObject(dir_, name, &info);  // owned by session from here on
  session->name = name;
  session->size = info.size;
  session->owner = connection;

  std::lock_guard<std::mutex> lock(mutex_);
  if (static_cast<int>(sessions_.size()) >= maxSessions_)
    throw StoreError(StoreError::kTooManySessions,
                     Format("cannot open object %s: %d sessions are open, the limit is %d", Quote(name).c_str(),
                            static_cast<int>(sessions_.size()), maxSessions_));
  if (nextConid_ == std::numeric_limits<int32_t>::max())
    throw StoreError(StoreError::kTooManySessions, "cannot open object " + Quote(name) + ": session ids exhausted");
  int32_t conid = nextConid_++;
  sessions_[conid] = session;
  *state = session->State();
  return conid;
}

std::shared_ptr<ObjectStore::Session> ObjectStore::Find(int32_t conid) const {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = sessions_.find(conid);
  if (it == sessions_.end()) throw NoSession(conid);
  return it->second;
}

void ObjectStore::Read(int32_t conid, size_t n, std::string* data, SessionState* state) {
  std::shared_ptr<Session> s = Find(conid);
  std::lock_guard<std::mutex> lock(s->mutex);
  int64_t remaining = s->position < s->size ? s->size - s->position : 0;
  size_t want = static_cast<uint64_t>(remaining) < n ? static_cast<size_t>(remaining) : n;
  // data keeps its storage from the last reply: resizing, not clearing
  // first, fills only bytes beyond its last size (which pread overwrites).
  data->resize(want);
  size_t got = 0;
  while (got < want) {
    ssize_t r = pread(s->fd, &(*data)[got], want - got, static_cast<off_t>(s->position) + static_cast<off_t>(got));
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) {
      int e = errno;
      data->clear();
      throw StoreError(StoreError::kIoError, Format("read of object %s failed at offset %lld on conid %d: %s",
                                                    Quote(s->name).c_str(), static_cast<long long>(s->position),
                                                    conid, strerror(e)));
    }
    if (r == 0) break;  // the file shrank since it was opened: return what there is
    got += static_cast<size_t>(r);
  }
  data->resize(got);
  s->position += static_cast<int64_t>(got);
  *state = s->State();
}

void ObjectStore::Skip(int32_t conid, int64_t n, SessionState* state) {
  std::shared_ptr<Session> s = Find(conid);
  if (n < 0)
    throw StoreError(StoreError::kBadArgument,
                     Format("cannot skip a negative byte count (%lld) on conid %d", static_cast<long long>(n), conid));
  std::lock_guard<std::mutex> lock(s->mutex);
  const int64_t kMax = std::numeric_limits<int64_t>::max();
  s->position = s->position > kMax - n ? kMax : s->position + n;
  *state = s->State();
}

void ObjectStore::Rewind(int32_t conid, SessionState* state) {
  std::shared_ptr<Session> s = Find(conid);
  std::lock_guard<std::mutex> lock(s->mutex);
  s->position = 0;
  *state = s->State();
}

void ObjectStore::Close(int32_t conid, SessionState* state) {
  std::shared_ptr<Session> s;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sessions_.find(conid);
    if (it == sessions_.end()) throw NoSession(conid);
    s = it->second;
    sessions_.erase(it);
  }
  std::lock_guard<std::mutex> lock(s->mutex);  // wait for a request still using it
  *state = s->State();
}

int ObjectStore::CloseAllOf(uint64_t connection) {
  std::lock_guard<std::mutex> lock(mutex_);
  int closed = 0;
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if (it->second->owner == connection) {
      it = sessions_.erase(it);
      ++closed;
    } else {
      ++it;
    }
  }
  return closed;
}

int ObjectStore::OpenSessions() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return static_cast<int>(sessions_.size());
}

}  // namespace tqdedupd
