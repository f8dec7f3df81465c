// tvucon_check.h - tvucon check, and the same check before a consolidation.
#ifndef TVU_TOOLS_TVUCON_CHECK_H
#define TVU_TOOLS_TVUCON_CHECK_H

#include <cstdio>
#include <string>

#include "tvucon/tvucon_options.h"
#include "vfs/tq_vfs_check.h"

// Opens the chain of options.saveset in `plan` and checks it (records too
// unless --no-records).  Problems are printed to `out` ("FILE:LINE: what",
// or JSON objects with --json), the summary to standard error unless quiet;
// with --no-check (a consolidation that only wants the stream's layout)
// nothing is printed.  Returns 0 when the chain has no problem, 1 when it
// has, 2 when it cannot be opened (the reason is printed).
int CheckChain(const TvuconOptions& options, tvu::ChainPlan* plan, tvu::CheckSummary* summary, FILE* out);

// tvucon check: the exit status.
int RunCheck(const TvuconOptions& options, FILE* out);

// "FILE:LINE: what" (or "FILE: what").
std::string ProblemText(const tvu::CheckProblem& p);

#endif
