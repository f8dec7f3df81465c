// tvu_con_so.cpp - the shared library is the module core linked whole; only
// the symbols marked TVU_EXPORT (the DB_* entry points, g_tq_log_ptr and the
// host helpers of tvu_host.h) are visible outside it.
#include "tvu_con.h"
#include "tvu_host.h"
