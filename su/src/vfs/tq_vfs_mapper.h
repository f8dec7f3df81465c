// tq_vfs_mapper.h - the mapper rules file: a tree of chosen items under
// "/R/MAPPER" (local files, whole savesets, catalog items, rebuilt VMDK
// disks), one rule a line.
//
// Single-threaded: runs once during VFS initialisation, after the VMDK file
// system.  Every failure in a rule ends the process, except an unknown token
// (ignored) and an unknown saveset name (traced, line skipped).
#ifndef TVU_VFS_MAPPER_H
#define TVU_VFS_MAPPER_H

struct CON_ARGS;

// The rules file of the next VFS initialisation ("" or null: none).
void VfsSetMapperRulesFile(const char* path);
const char* VfsGetMapperRulesFile();

// Reads the rules file and adds its nodes to the tree; 0.
int initializeMAPPER_FS(const CON_ARGS* args);

#endif
