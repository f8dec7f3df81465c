// n7dedup.thrift - the part of the dedup store service that restores objects.
//
// Field ids and types are those of the service; the module reads only the
// fields its object information needs.  Every exception carries a numeric
// code and a message.

namespace cpp n7dedup

exception ObjectExistsException { 1: i32 code, 2: string message }
exception PageFileNotFoundException { 1: i32 code, 2: string message }
exception UnsupportedLogMessageLevel { 1: i32 code, 2: string message }
exception ReplicationSessionNotFoundException { 1: i32 code, 2: string message }
exception TooManySessionsException { 1: i32 code, 2: string message }
exception TooManyLogMessages { 1: i32 code, 2: string message }
exception SessionNotFound { 1: i32 code, 2: string message }
exception Issue246Exception { 1: i32 code, 2: string message }
exception RetryLaterException { 1: i32 code, 2: string message }
exception DataCorruptionException { 1: i32 code, 2: string message }
exception ChunkNotFoundException { 1: i32 code, 2: string message }
exception ObjectNotFound { 1: i32 code, 2: string message }
exception Vk4EmergencyStateException { 1: i32 code, 2: string message }
exception CouldNotStartSnapshotException { 1: i32 code, 2: string message }
exception ServerInShutdownException { 1: i32 code, 2: string message }
exception S3IllegalStateException { 1: i32 code, 2: string message }

struct ReplicationRequest {
  1: string host,
  2: i32 port,
}

// Progress of a replication; not read by the module.
struct ReplicationStats {
  1: i64 bytesSent,
  2: i64 bytesTotal,
}

// One step in the history of an object; not read by the module.
struct ProvenanceRecord {
  1: string event,
  2: i32 time,
  3: string origin,
}

struct ObjectMetadata {
  1: i16 version,
  3: i64 totalChunks,
  4: i64 newChunks,
  5: i64 totalBytes,
  6: i64 newBytes,
  7: i32 runtime,
  8: i32 ctime,
  9: optional bool userCanceled,
  10: optional string softwareVersion,
  11: optional i64 lastFullFsck,
  12: optional string softwareGitId,
  20: binary treeHash,
  21: i64 treePageId,
  40: optional ReplicationRequest replicationRequest,
  41: optional ReplicationStats replicationStats,
  50: list<ProvenanceRecord> history,
}

service DedupService {
  // Opens a restore session on an object; returns its connection id.
  i32 startRecover(1: string filename)
      throws (1: ObjectNotFound onf, 2: TooManySessionsException tms, 3: DataCorruptionException dce),
  // The next bytes of the session's object, at most howManyBytes.
  binary recover(1: i32 conid, 2: i32 howManyBytes)
      throws (1: SessionNotFound snf, 2: DataCorruptionException dce),
  void skip(1: i32 conid, 2: i64 skipBytes) throws (1: SessionNotFound snf),
  void rewind(1: i32 conid) throws (1: SessionNotFound snf),
  void close(1: i32 conid) throws (1: SessionNotFound snf),
  ObjectMetadata getObjectMetadata(1: string filename) throws (1: ObjectNotFound onf),
}
