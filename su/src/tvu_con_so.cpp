// tvu_con_so.cpp - the shared library is the module core linked whole; only
// the symbols marked TVU_EXPORT (the DB_* entry points and g_tq_log_ptr) are
// visible outside it.
#include "tvu_con.h"
