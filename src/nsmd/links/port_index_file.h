// The index pool's names in a file, so that a restarted nsmd numbers the ports as the one before it did: to
// the daemon, a port with another index is another port, and its neighbours would notice.
#pragma once

#include "nsmd/links/port_index.h"

// Reserves each index for the name that had it. A file that is missing or makes no sense reserves nothing.
void port_index_load(port_index_pool* pool, const char* path);

// 0 or a negative errno. The file is replaced as a whole: a kill leaves the old or the new one. Where no
// file may be made beside it, it is written over in place.
[[nodiscard]] int port_index_save(const port_index_pool* pool, const char* path);
