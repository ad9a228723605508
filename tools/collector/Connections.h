#pragma once

namespace orbiq::collector {

/// The HTTP server does not hand out its sockets. These find this process's connections by the
/// ports at their two ends.

/// The descriptor of the connection from a client's port; -1 if there is none.
int connectionFrom(int clientPort, int serverPort);

/// Ends every connection to a port, without an answer to what waits on it.
void shutDownConnections(int serverPort);

/// Whether the client has closed its end.
bool clientHasGone(int connection);

}  // namespace orbiq::collector
