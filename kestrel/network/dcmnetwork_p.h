#pragma once

namespace kestrel::internal {

// DCMTK leaves Nagle's algorithm on for its sockets unless the environment variable TCP_NODELAY
// is set when a socket is made; with it on, every C-STORE waits for the peer's delayed ACK
// (about 20 objects a second on loopback). Sets it to 1 for this process unless the user set it.
// Call from the main thread before the first association.
void disableNagleForDcmtk();

} // namespace kestrel::internal
