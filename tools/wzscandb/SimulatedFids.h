// Simulated Lustre FIDs, for trying Lustre scan databases on a machine
// without a Lustre mount (--simulate-lustre-fids).
//
// Installs a resolver in the Lustre interface library that stands in for the
// Lustre client: the FID of an existing entry is made from its lstat status,
// sequence 0x200000000 + st_dev, object id the low and version the high 32
// bits of st_ino. Like the client, it follows no final symbolic link, and a
// missing path gives -ENOENT. Every FID lookup of the process goes to it.
#pragma once

void InstallSimulatedFids();
