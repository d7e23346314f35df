// LmdbVerifier: a structural check of an LMDB file, made before LMDB maps it.
//
// LMDB trusts every page of its file: a damaged or hostile page (a node
// pointing outside its page, a child page number past the end, a branch page
// where a leaf belongs, a loop between pages) makes it read out of bounds or
// abort. The verifier reads the file itself, through a read-only map, and
// follows every page the newer meta page leads to: the free-page tree, the
// main tree, every named database and every set of sorted duplicates. Each
// page is checked for its number, kind, bounds and node layout, each child
// reference for range, each page for being reached once only, the keys for
// their order, the page and entry counts against those the trees record,
// and the free pages for lying inside the file and outside every tree. A file
// that passes can be handed to LMDB: nothing LMDB follows from it is outside
// what was checked.
//
// The quick form checks only what an open of a file closed cleanly must trust
// before it reads its own records: the meta pages, the main and free-page
// trees, and the root page numbers of the named databases; it reads a few
// pages, whatever the file's size.
//
// Only the layout of LMDB 0.9 on 64-bit little-endian machines is accepted,
// with the database flags this engine uses. Thread-safe (no shared state).
// The full check costs one read of every page in use; memory: one bit per page.
#pragma once

#include <cstdint>
#include <string>

namespace wztable {

// Checks the LMDB file open at `fd`, every page (`deep`) or the quick form.
// TBL_OK, or TBL_BAD_FORMAT with `reason` (when not null) saying what is
// wrong and on which page, or TBL_IO_ERROR when the file cannot be read.
int verifyLmdbFile(int fd, std::string* reason, bool deep = true);

}  // namespace wztable
