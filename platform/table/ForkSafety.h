// ForkSafety: the table files a process holds open are closed in any child it
// makes with fork(), so that the parent's close() releases the files' locks
// even while the child lives on. (The child must not use the parent's tables:
// they are unusable there.)
#pragma once

namespace wztable {

// Registers / unregisters a descriptor to be closed in fork() children.
void closeInForkChildren(int fd);
void keepInForkChildren(int fd);

}  // namespace wztable
