// db_module.cpp - the exported entry points of the module.
//
// Each entry point traces its name and hands over to one C++ function.  No
// exception crosses the C boundary: running out of memory ends the process
// the same way every other allocation failure does, and anything else
// unexpected is a fatal internal error.
#include <exception>
#include <new>

#include "plugin/db_hooks.h"
#include "plugin/db_operation.h"
#include "tvu_con.h"
#include "vfs/tq_vfs_common.h"

#ifndef TVU_BUILD_ID
#define TVU_BUILD_ID "unknown"
#endif

namespace {

template <class F>
uint32_t Guarded(F body) {
  try {
    return body();
  } catch (const std::bad_alloc&) {
    tvu_out_of_memory(0, __FILE__, __LINE__);
  } catch (const std::exception& e) {
    tvu_fatal("Internal error: %s", e.what());
  } catch (...) {
    tvu_fatal("Internal error: unknown exception");
  }
}

}  // namespace

extern "C" {

TVU_EXPORT uint32_t DB_GetInfo(DB_INFO* info) {
  tvu_trace("DB_GetInfo");
  if (!info) return DB_NUM_E_FAILED;
  info->pszDescription = "KORVO Backup Saveset Consolidation using VFS API Client";
  info->pszVersion = "5.2.0.16";
  info->pszBuild = TVU_BUILD_ID;
  info->iFlag = 1;
  return DB_NUM_I_OK;
}

TVU_EXPORT uint32_t DB_InitOperation(uint32_t type, uint32_t flags, char** controlVariables,
                                     DB_OPERATION* descriptor) {
  tvu_trace("DB_InitOperation");
  return Guarded([&] {
    return OperationInit(type, flags, controlVariables, descriptor ? descriptor->pszSaveset : nullptr);
  });
}

TVU_EXPORT uint32_t DB_GetItem(const char* path, const char* orig, const char* file) {
  tvu_trace("DB_GetItem");
  tvu_log(TQ_LOG_DETAIL, "DB_GetItem(path: [%s], orig: [%s], file: [%s]) return: [%s] (%d)", path ? path : "",
          orig ? orig : "", file ? file : "", "DB_NUM_I_OK", 3000);
  return DB_NUM_I_OK;
}

TVU_EXPORT uint32_t DB_SetItem(int32_t type, const char* name) {
  // The module delivers data and never receives it.
  tvu_trace("%s: !!! type: %d, item_name: %s", "DB_SetItem", type, name ? name : "");
  return DB_NUM_E_FAILED;
}

TVU_EXPORT uint32_t DB_OpenItem(void) {
  tvu_trace("DB_OpenItem");
  return DB_NUM_I_OK;
}

TVU_EXPORT uint32_t DB_CloseItem(void) {
  tvu_trace("DB_CloseItem");
  return DB_NUM_I_OK;
}

TVU_EXPORT uint32_t DB_DirItem(void) {
  tvu_trace("DB_DirItem");
  return DB_NUM_I_END;
}

TVU_EXPORT uint32_t DB_ReadBlock(char* buffer, uint32_t* length, void* /*reserved1*/, void* /*reserved2*/) {
  if (!buffer || !length) {
    tvu_trace("DB_ReadBlock");
    tvu_log_error("DB_ReadBlock called without a buffer or length");
    return DB_NUM_E_FAILED;
  }
  return Guarded([&] { return OperationReadBlock(buffer, length); });
}

TVU_EXPORT uint32_t DB_WriteBlock(const char* /*buffer*/, uint32_t* /*length*/) {
  tvu_trace("DB_WriteBlock");
  return DB_NUM_E_FAILED;
}

TVU_EXPORT uint32_t DB_ItemFinishStatus(void) {
  return Guarded([] { return OperationItemFinishStatus(); });
}

TVU_EXPORT uint32_t DB_CloseOperation(void) {
  return Guarded([] { return OperationClose(); });
}

TVU_EXPORT int32_t DB_Results(void) { return 0; }

}  // extern "C"
