// relist.h - pointing an existing chain's saveset list at another medium.
#ifndef TVU_TOOLS_MKCHAIN_RELIST_H
#define TVU_TOOLS_MKCHAIN_RELIST_H

#include <string>

// Rewrites the saveset list of the chain in `dir` so that its savesets are
// read from `media`: "file" (the .cpio files), "vk4" or "vk4ng" (objects of
// the same names in a dedup store at host:port; a store serving the chain's
// savesets/ folder).  For the dedup media it also writes the store's INI file
// ini/xfpd_conf/xfpd_<port-11701>.ini with the transfer type.
bool RelistChain(const std::string& dir, const std::string& media, const std::string& host, int port,
                 const std::string& httpType, std::string* error);

#endif
