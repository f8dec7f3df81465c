// bitmap_chain.h - a disk saved as one full raw image and block-bitmap
// increments, as its own chain: the head and each increment's block data are
// savesets of their own (raw files, no archive), the increments' bitmap
// files are items of one CPIO saveset, and a rules file shows the merged
// disk as a VHD.
#ifndef MKCHAIN_BITMAP_CHAIN_H
#define MKCHAIN_BITMAP_CHAIN_H

namespace mkchain {

// "mkchain bitmap --out DIR --size BYTES [--increments N] [--blocks N]
//  [--sparse] [--seed N]": writes the chain, final.raw (the disk's final
// state), rules.map and chain.txt.  Exit status 0, 1 on failure, 2 for a bad
// command line.
int BitmapChainMain(int argc, char** argv);

}  // namespace mkchain

#endif
