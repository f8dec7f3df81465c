// db_hooks.h - the entry points that set the client's log and trace hooks and
// fetch the error record (DB_SetLog, DB_SetTrace, DB_SetError, DB_GetError).
// The hooks themselves and everything that reports through them live in
// report/tvu_report.h.
#ifndef TVU_PLUGIN_DB_HOOKS_H
#define TVU_PLUGIN_DB_HOOKS_H

#include "report/tvu_report.h"

// Clears the hooks, the error record and g_tq_log_ptr (tests).
void tvu_hooks_reset_for_test();

#endif
