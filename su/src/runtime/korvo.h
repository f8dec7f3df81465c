// korvo.h - the common runtime the module calls: configuration, tracing,
// text conversion, time and path helpers.  Include this or the single headers.
#ifndef TVU_RUNTIME_KORVO_H
#define TVU_RUNTIME_KORVO_H

#include "runtime/ini.h"
#include "runtime/text.h"
#include "runtime/timefmt.h"
#include "runtime/trace.h"

#endif
