// The process at the other end of a Unix-domain socket: its number may become another's, a descriptor of it never does.
#pragma once

#include <sys/types.h>

#include "host/osal/descriptor.h"

namespace host {

// Where the kernel knows the process of a socket by itself, that one, also after it has ended; else the one that has
// the number now. None when there is none.
Descriptor ProcessOfPeer(int socket, pid_t number);

// Whether ProcessOfPeer needs no number: else it is to be called as soon as the connection is there.
bool KernelKeepsPeers();

// Of what ProcessOfPeer returned; none has ended.
bool HasEnded(const Descriptor &process);

} // namespace host
