// db_operation.h - the one consolidation operation the module serves at a time.
//
// Single-threaded: the client calls the entry points from one thread.
#ifndef TVU_PLUGIN_DB_OPERATION_H
#define TVU_PLUGIN_DB_OPERATION_H

#include <cstdint>

uint32_t OperationInit(uint32_t type, uint32_t flags, char** controlVariables, const char* descriptorSaveset);
uint32_t OperationReadBlock(char* buffer, uint32_t* length);
uint32_t OperationItemFinishStatus();
uint32_t OperationClose();

// The name of the finish event that another party may signal when the
// client has finished an item.
constexpr const char* kFinishItemEventName = "FinishItemEvent";

#endif
