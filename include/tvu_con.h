/*
 * tvu_con.h - the database-module interface of tvu_con.
 *
 * tvu_con is loaded by the backup client as a database module and driven only
 * through the functions below.  It consolidates a chain of earlier savesets
 * (one full, many incrementals) into the byte stream of one new, self-contained
 * saveset, delivered through DB_ReadBlock.
 *
 * Conventions
 *  - C linkage, x86-64; every DB_* function returns a uint32_t result code
 *    (DB_NUM_I_OK, DB_NUM_I_END, DB_NUM_E_FAILED; DB_InitOperation may also
 *    return 2), except DB_Results, which returns 0.
 *  - The client calls the functions from one thread, one operation at a time,
 *    in this order: DB_SetLog, DB_SetTrace, optionally DB_GetInfo,
 *    DB_InitOperation; then DB_GetItem, DB_OpenItem, DB_ReadBlock until it
 *    returns DB_NUM_I_END, DB_CloseItem, DB_ItemFinishStatus; last
 *    DB_CloseOperation.
 *  - All strings are NUL-terminated narrow strings in the client's encoding.
 *    The module never keeps a pointer the client passes in; it copies.
 *  - Strings the module hands out (DB_INFO) are static and owned by the module.
 *  - Unrecoverable conditions (a corrupt catalog, an unknown saveset, a saveset
 *    that cannot be opened, ...) are not returned: the module writes its
 *    message, records it in the status file "tvu_con.status" of the meta files
 *    directory and ends the process with exit status 1.
 *  - The host program should export "vttvu_log" (VTTVU_LOG_FN); the module
 *    finds it in the main executable at DB_SetLog time.
 */
#ifndef TVU_CON_H
#define TVU_CON_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(_WIN32)
#define TVU_EXPORT __declspec(dllexport)
#else
#define TVU_EXPORT __attribute__((visibility("default")))
#endif

#define DB_NUM_I_OK 3000u
#define DB_NUM_I_END 3001u
#define DB_NUM_E_FAILED 1000u

#define DB_TYPE_BCK 1
#define DB_TYPE_RST 2
#define DB_TYPE_DIR 3

typedef struct DB_INFO {
  const char *pszDescription;
  const char *pszVersion;
  void *pReserved; /* left untouched by the module */
  const char *pszBuild;
  int32_t iFlag;
} DB_INFO;

typedef struct DB_ERROR {
  uint32_t uiCode;
  char szKind[64];
  char szMessage[2048];
} DB_ERROR; /* 2116 bytes */

typedef struct DB_OPERATION {
  const char *pszSaveset;
} DB_OPERATION;

/* Fallback log hook and trace hook: one formatted text per call. */
typedef void (*DB_TEXT_FN)(const char *text);
/* The host's exported "vttvu_log": level and unformatted arguments. */
typedef void (*VTTVU_LOG_FN)(int32_t zero, int32_t level, const char *format, va_list args);
/* Type of g_tq_log_ptr, through which shared code logs. */
typedef void (*TQ_LOG_FN)(int32_t level, const char *format, ...);

/* Log levels the module uses. */
#define TQ_LOG_ERROR 1500
#define TQ_LOG_PROGRESS 3500
#define TQ_LOG_DETAIL 4000

TVU_EXPORT uint32_t DB_SetLog(DB_TEXT_FN fn);
TVU_EXPORT uint32_t DB_SetTrace(DB_TEXT_FN fn);
TVU_EXPORT uint32_t DB_SetError(uint32_t code, const char *format, ...);
TVU_EXPORT uint32_t DB_GetError(DB_ERROR *error);
TVU_EXPORT uint32_t DB_GetInfo(DB_INFO *info);
TVU_EXPORT uint32_t DB_InitOperation(uint32_t type, uint32_t flags, char **controlVariables,
                                     DB_OPERATION *descriptor);
TVU_EXPORT uint32_t DB_GetItem(const char *path, const char *orig, const char *file);
TVU_EXPORT uint32_t DB_SetItem(int32_t type, const char *name);
TVU_EXPORT uint32_t DB_OpenItem(void);
TVU_EXPORT uint32_t DB_CloseItem(void);
TVU_EXPORT uint32_t DB_DirItem(void);
TVU_EXPORT uint32_t DB_ReadBlock(char *buffer, uint32_t *length, void *reserved1, void *reserved2);
TVU_EXPORT uint32_t DB_WriteBlock(const char *buffer, uint32_t *length);
TVU_EXPORT uint32_t DB_ItemFinishStatus(void);
TVU_EXPORT uint32_t DB_CloseOperation(void);
TVU_EXPORT int32_t DB_Results(void);

TVU_EXPORT extern TQ_LOG_FN g_tq_log_ptr;

#ifdef __cplusplus
}
#endif

#endif /* TVU_CON_H */
