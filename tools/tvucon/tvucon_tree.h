// tvucon_tree.h - tvucon's tree commands: ls, stat, cat, find, export and
// mount over the chain as one file tree (the library's tree mode).
#ifndef TVU_TOOLS_TVUCON_TREE_H
#define TVU_TOOLS_TVUCON_TREE_H

#include <cstdio>
#include <string>

#include "tvu_con.h"
#include "tvucon/tvucon_options.h"

// True for the commands this file runs.
bool IsTreeCommand(const std::string& command);
// Runs one tree command; returns the exit status (0, 1 failure).  Listings
// and file bytes go to `out` (null for the commands that write none: export
// and mount); messages go to standard error.
int RunTreeCommand(const TvuconOptions& options, DB_TEXT_FN traceHook, FILE* out);

#endif
