// tvucon_tree.h - tvucon's tree commands: ls, stat, cat, find, export and
// mount over the chain as one file tree (the library's tree mode).
#ifndef TVU_TOOLS_TVUCON_TREE_H
#define TVU_TOOLS_TVUCON_TREE_H

#include "tvu_con.h"
#include "tvucon/tvucon_options.h"

// True for the commands this file runs.
bool IsTreeCommand(const std::string& command);
// Runs one tree command; returns the exit status (0, 1 failure).
int RunTreeCommand(const TvuconOptions& options, DB_TEXT_FN traceHook);

#endif
